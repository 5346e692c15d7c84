#include "libvtenterprise/synthetic_reports.h"

#include <cstdlib>

#include <veltrane/alloc.h>
#include <veltrane/owned.h>
#include <veltrane/string_lib.h>

#include "libvtenterprise/diff_common.h"
#include "libvtenterprise/enterprise_install.h"
#include "libvtenterprise/reports.h"

namespace {

using veltrane::SeqPtr;

constexpr size_t kExpectedLines = 500;
constexpr char kTags[] = "inventory,attribute_name=none,source=agent";
constexpr char kPeerKey[] = "SHA=9510f15fcc1dcb20d07af05fbdcbf58d212a2889f8939fa86d1b265da019a1da";
constexpr char kDeltaRelease[] = "f199195b7dd0c33b989f1528e7a34a46b76388ac";
constexpr char kRebaseRelease[] = "f199195b7dd0c33b989f1528e7a34a46b76388ab";

// A reply that grows chapter by chapter. Its first slot is kept for the header.
class SyntheticReply {
  public:
    SyntheticReply() : lines_(SeqNew(kExpectedLines, free)) { SeqAppend(lines_.get(), nullptr); }

    // One chapter and its row, which is taken over.
    void Add(CodeBookIndex chapter, char *row)
    {
        SeqAppend(lines_.get(), xstrdup(VT_CODEBOOK[chapter]));
        SeqAppend(lines_.get(), row);
    }

    // The whole reply. A synthetic host's clock is right, so the header's clock error is 0.
    Seq *Finish(const char *ts)
    {
        SeqSet(lines_.get(), 0, StringFormat("VTR: 0 %s %d", ts, SeqStringLength(lines_.get())));
        return lines_.release();
    }

  private:
    SeqPtr lines_;
};

char *ExecutionRow(const char *ts, const char *kind, const char *release_id)
{
    return StringFormat("%s,%s,%s,%s,%s,%s,%s,%s,%s,%s,%s,%s,%s,%s", ts, kind,
                        "16901966dc9334be66e516c29d8f412dcbf6015d5f9a02f8f364df0151433d0e",
                        "/var/veltrane/inputs/vte_internal/enterprise/main.vt", release_id, "110", "default",
                        "vte_internal_enterprise_main", "methods", "hub",
                        "/default/'Veltrane_Internals'/shortened/'hub'[1]", "vte_internal_management_php_runalerts",
                        "[]", R"("[""Method 'vte_foo' failed in some repairs""]")");
}

}  // namespace

Seq *Reports_PackTestDelta(const char *ts) noexcept
{
    SyntheticReply reply;
    reply.Add(vtr_code_class_diff, StringFormat("%s,%d,%s,\"%s\"", ts, diff_untracked, "enterprise_edition", kTags));
    reply.Add(vtr_code_variable_diff, StringFormat("%s,%d,%s,%s,%s,%d,%s,\"%s\"", ts, diff_add, "default", "sys",
                                                   "host-delta", 0, "testnode-delta", kTags));
    reply.Add(vtr_code_last_seen_diff,
              StringFormat("%s,%d,%d,%s,%s,%lf,%ld", ts, diff_change, static_cast<int>(LAST_SEEN_DIRECTION_OUTGOING),
                           kPeerKey, "192.0.2.20", 102.24, 1513275352L));
    reply.Add(vtr_code_software_diff,
              StringFormat("%s,%d,%s,%s,%s", ts, diff_remove, "python3-minimal", "3.6.7-0ubuntu2", "amd64"));
    reply.Add(vtr_code_execution_log_diff, ExecutionRow(ts, "4", kDeltaRelease));
    reply.Add(vtr_code_execution_status, StringFormat("%c,%d,%ld", 't', 281, 1513575478L));
    return reply.Finish(ts);
}

Seq *Reports_PackTestRebase(const char *ts) noexcept
{
    constexpr char kAdd[] = "1";
    SyntheticReply reply;
    reply.Add(vtr_code_class_diff, StringFormat("%s,%s,%s,\"%s\"", ts, kAdd, "enterprise_edition", kTags));
    reply.Add(vtr_code_variable_diff,
              StringFormat("%s,%s,%s,%s,%s,0,%s,\"%s\"", ts, kAdd, "default", "sys", "host", "testnode", kTags));
    reply.Add(vtr_code_last_seen_diff,
              StringFormat("%s,%s,43,%s,%s,102.240000,1513275352", ts, kAdd, kPeerKey, "192.0.2.10"));
    reply.Add(vtr_code_software_diff,
              StringFormat("%s,%s,%s,%s,%s", ts, kAdd, "python3-minimal", "3.6.7-0ubuntu2", "amd64"));
    reply.Add(vtr_code_execution_log_diff, ExecutionRow(ts, kAdd, kRebaseRelease));
    reply.Add(vtr_code_execution_status, xstrdup("t,281,1513275477"));
    return reply.Finish(ts);
}

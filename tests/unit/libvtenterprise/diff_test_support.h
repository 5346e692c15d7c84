// Class states, contexts and rows as the tests of the difference engine write them down.
#ifndef TESTS_UNIT_LIBVTENTERPRISE_DIFF_TEST_SUPPORT_H
#define TESTS_UNIT_LIBVTENTERPRISE_DIFF_TEST_SUPPORT_H

#include <string>
#include <utility>
#include <vector>

#include <veltrane/owned.h>

#include "libvtenterprise/diff_common.h"
#include "libvtenterprise/enterprise_install.h"
#include "support/record_text.h"
#include "support/work_dir.h"

// Name and joined tags; NULL: no tags.
using ClassTexts = std::vector<std::pair<std::string, const char *>>;

inline veltrane::SeqPtr ClassState(const ClassTexts &classes)
{
    veltrane::SeqPtr state(SeqNew(0, HubClassDelete));
    for (const auto &[name, tags] : classes) { SeqAppend(state.get(), HubClassNew(nullptr, name.c_str(), 0, tags)); }
    return state;
}

inline veltrane::EvalContextPtr ContextWith(const ClassTexts &classes)
{
    veltrane::EvalContextPtr ctx(EvalContextNew());
    for (const auto &[name, tags] : classes) { EvalContextClassPutSoft(ctx.get(), name.c_str(), tags); }
    return ctx;
}

// Each row as its CSV record, without the record's end.
inline std::vector<std::string> RowTexts(const Seq *rows, ReportType type = report_type_classes)
{
    std::vector<std::string> texts;
    for (size_t i = 0; i < SeqLength(rows); i++) {
        const veltrane::TextPtr text(DiffRowToCSV(static_cast<DiffRow *>(SeqAt(rows, i)), type, false));
        texts.emplace_back(text.get());
    }
    return texts;
}

// Each record as its CSV record, without the record's end; an empty slot reads "(empty)".
inline std::vector<std::string> StateTexts(const Seq *state, ReportType type)
{
    std::vector<std::string> texts;
    for (size_t i = 0; i < SeqLength(state); i++) {
        void *record = SeqAt(state, i);
        const std::string text = record != nullptr ? CsvOf(REPORT_DATA_HANDLES[type].DataToCSV, record) : "(empty)\r\n";
        texts.push_back(text.substr(0, text.size() - 2));
    }
    return texts;
}

inline std::filesystem::path CachePath(const WorkDirectory &work, const std::string &type = "classes")
{
    return work.State("previous_state/" + type + ".cache");
}

inline std::filesystem::path DiffPath(const WorkDirectory &work, const std::string &type = "classes")
{
    return work.State("diff/" + type + ".diff");
}

#endif

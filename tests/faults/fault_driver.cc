// Packs one reply in this very process, as the daemon does for a query, and ages the difference files after a delta:
// the daemon's work on the state without its network, so that it can be taken through thousands of faults.
//
// Usage: fault_driver WORKDIR delta|rebase SINCE hide|show
// Prints the reply. Exit status 3 when it has more or fewer descriptors open at the end than before.
#include <fcntl.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string_view>

#include <veltrane/alloc.h>
#include <veltrane/known_dirs.h>
#include <veltrane/logging.h>
#include <veltrane/owned.h>

#include "libvtenterprise/datapack.h"
#include "libvtserverd/server.h"

namespace {

// The open ones among the first thousand; asks for no memory.
int OpenDescriptors()
{
    int count = 0;
    for (int fd = 0; fd < 1000; fd++) { count += fcntl(fd, F_GETFD) >= 0 ? 1 : 0; }
    return count;
}

ReportBookFilterPtr HidingBook(const char *query_word)
{
    Seq *excluded = SeqNew(1, free);
    SeqAppend(excluded, xstrdup("secre."));
    ReportBookFilterPtr book(ReportBookFilterNewFrom(query_word));
    ReportBookFilterAppendReportFilter(book.get(), ReportFilterNewFrom("metatags", nullptr, excluded));
    return book;
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc != 5) {
        fputs("usage: fault_driver WORKDIR delta|rebase SINCE hide|show\n", stderr);
        return 2;
    }
    SetWorkDir(argv[1]);
    LogSetGlobalLevel(LOG_LEVEL_VERBOSE);
    const bool delta = std::string_view(argv[2]) == "delta";
    const time_t since = strtol(argv[3], nullptr, 10);
    const ReportBookFilterPtr book = std::string_view(argv[4]) == "hide" ? HidingBook(argv[2]) : nullptr;

    const int before = OpenDescriptors();
    const veltrane::SeqPtr lines(Vesk_PackAllReports(since, time(nullptr) - 1, 0,
                                                     delta ? REPORT_REQUEST_TYPE_DELTA : REPORT_REQUEST_TYPE_REBASE,
                                                     book.get(), VT_PROTOCOL_FILESTREAM));
    if (delta) {
        PurgeOldDiffReports(AgeingThreshold(since));
    }
    const int after = OpenDescriptors();
    for (size_t i = 0; i < SeqLength(lines.get()); i++) { puts(static_cast<const char *>(SeqAt(lines.get(), i))); }
    if (before != after) {
        fprintf(stderr, "%d descriptors were open before, %d are after\n", before, after);
        return 3;
    }
    return 0;
}

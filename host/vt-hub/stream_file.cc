#include "vt-hub/stream_file.h"

#include <algorithm>
#include <iostream>
#include <iterator>
#include <string_view>

#include <veltrane/errors.h>
#include <veltrane/file_lib.h>
#include <veltrane/logging.h>
#include <veltrane/owned.h>

namespace vthub {

namespace {

constexpr std::size_t kMaxFileBytes = std::size_t{1} << 30;

// The file change chapter is the one whose lines are no CSV: a path may hold a lone quote.
constexpr std::string_view kPlainChapter = "CNG";

bool IsChapterLine(std::string_view line) { return line.size() == 3; }

std::optional<std::string> ReadWhole(const std::string &path)
{
    if (path == "-") {
        return std::string(std::istreambuf_iterator<char>(std::cin), {});
    }
    bool truncated = false;
    const veltrane::WriterPtr content(FileRead(path.c_str(), kMaxFileBytes, &truncated));
    if (content == nullptr) {
        Log(LOG_LEVEL_ERR, "Could not read '%s': %s", path.c_str(), GetErrorStr());
        return std::nullopt;
    }
    if (truncated) {
        Log(LOG_LEVEL_ERR, "'%s' is larger than %zu bytes", path.c_str(), kMaxFileBytes);
        return std::nullopt;
    }
    return std::string(StringWriterData(content.get()), StringWriterLength(content.get()));
}

}  // namespace

bool SplitStream(const std::string &bytes, std::vector<std::string> *ret_lines)
{
    std::vector<std::string> lines;
    bool plain = true;  // the header is no CSV
    bool open_quote = false;
    std::size_t begin = 0;
    while (begin < bytes.size()) {
        const std::size_t end = std::min(bytes.find('\n', begin), bytes.size());
        const std::string_view piece(bytes.data() + begin, end - begin);
        begin = end + 1;
        const bool ends_row = piece.empty() && !lines.empty() && lines.back().ends_with('\r');
        if (open_quote || ends_row) {  // a row that travels with its record end stands on two lines
            lines.back().append("\n").append(piece);
        } else if (piece.starts_with("# ")) {
            continue;
        } else {
            lines.emplace_back(piece);
            if (IsChapterLine(piece)) {
                plain = piece == kPlainChapter;
            }
        }
        if (!plain && std::count(piece.begin(), piece.end(), '"') % 2 == 1) {
            open_quote = !open_quote;
        }
    }
    if (open_quote) {
        return false;
    }
    *ret_lines = std::move(lines);
    return true;
}

std::optional<std::vector<std::string>> ReadStreamFile(const std::string &path)
{
    const std::optional<std::string> bytes = ReadWhole(path);
    if (!bytes) {
        return std::nullopt;
    }
    std::vector<std::string> lines;
    if (!SplitStream(*bytes, &lines)) {
        Log(LOG_LEVEL_ERR, "'%s' is no whole report stream: a quote stays open to its end", path.c_str());
        return std::nullopt;
    }
    return lines;
}

}  // namespace vthub

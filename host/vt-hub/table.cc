#include "vt-hub/table.h"

#include <algorithm>
#include <cstdio>

namespace vthub {

namespace {

constexpr std::string_view kIndent = "  ";
constexpr std::string_view kGap = "  ";
constexpr std::string_view kCut = "...";

// Bytes of the well-formed UTF-8 character at the beginning of text; 0 when there is none.
std::size_t CharacterLength(std::string_view text)
{
    const auto lead = static_cast<unsigned char>(text[0]);
    const std::size_t length = lead < 0x80                   ? 1
                               : lead >= 0xC2 && lead < 0xE0 ? 2
                               : (lead & 0xF0) == 0xE0       ? 3
                               : lead >= 0xF0 && lead < 0xF5 ? 4
                                                             : 0;
    if (length == 0 || length > text.size()) {
        return 0;
    }
    for (std::size_t i = 1; i < length; ++i) {
        if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) {
            return 0;
        }
    }
    const unsigned char second = length > 1 ? static_cast<unsigned char>(text[1]) : 0;
    const bool overlong = (lead == 0xE0 && second < 0xA0) || (lead == 0xF0 && second < 0x90);
    const bool beyond = (lead == 0xED && second > 0x9F) || (lead == 0xF4 && second > 0x8F);
    const bool c1_control = lead == 0xC2 && second < 0xA0;
    return overlong || beyond || c1_control ? 0 : length;
}

void AppendEscaped(std::string *out, unsigned char byte)
{
    switch (byte) {
        case '\n':
            out->append("\\n");
            return;
        case '\r':
            out->append("\\r");
            return;
        case '\t':
            out->append("\\t");
            return;
        default:
            break;
    }
    char escape[5];
    std::snprintf(escape, sizeof(escape), "\\x%02x", byte);
    out->append(escape);
}

bool IsContinuation(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

// Columns that a printable text takes, one a character.
std::size_t Width(std::string_view text)
{
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) { return !IsContinuation(c); }));
}

std::string CutTo(const std::string &text, std::size_t width)
{
    if (width == 0 || Width(text) <= width) {
        return text;
    }
    std::size_t keep = width > kCut.size() ? width - kCut.size() : 0;
    std::size_t end = 0;
    while (end < text.size() && (keep > 0 || IsContinuation(text[end]))) {
        keep -= IsContinuation(text[end]) ? 0 : 1;
        ++end;
    }
    return text.substr(0, end).append(kCut);
}

void PrintRow(std::ostream &out, const std::vector<std::string> &cells, const std::vector<std::size_t> &widths)
{
    std::string line(kIndent);
    for (std::size_t i = 0; i < cells.size(); ++i) {
        line += cells[i];
        if (i + 1 < cells.size()) {
            line.append(widths[i] - Width(cells[i]), ' ').append(kGap);
        }
    }
    line.erase(line.find_last_not_of(' ') + 1);
    out << line << '\n';
}

}  // namespace

std::string Printable(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const auto byte = static_cast<unsigned char>(text[0]);
        const std::size_t length = byte < 0x20 || byte == 0x7F ? 0 : CharacterLength(text);
        if (length == 0) {
            AppendEscaped(&out, byte);
            text.remove_prefix(1);
        } else {
            out.append(text.substr(0, length));
            text.remove_prefix(length);
        }
    }
    return out;
}

void Table::Add(std::vector<std::string> cells)
{
    for (std::string &cell : cells) { cell = Printable(cell); }
    rows_.push_back(std::move(cells));
}

void Table::Print(std::ostream &out, std::size_t max_cell_width) const
{
    std::vector<std::vector<std::string>> lines{headings_};
    for (const std::vector<std::string> &row : rows_) {
        lines.emplace_back();
        for (const std::string &cell : row) { lines.back().push_back(CutTo(cell, max_cell_width)); }
    }
    std::vector<std::size_t> widths;
    for (const std::vector<std::string> &line : lines) {
        widths.resize(std::max(widths.size(), line.size()));
        for (std::size_t i = 0; i < line.size(); ++i) { widths[i] = std::max(widths[i], Width(line[i])); }
    }
    for (const std::vector<std::string> &line : lines) { PrintRow(out, line, widths); }
}

}  // namespace vthub

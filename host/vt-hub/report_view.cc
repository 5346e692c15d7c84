#include "vt-hub/report_view.h"

#include <array>
#include <ctime>
#include <functional>
#include <map>
#include <sstream>

#include <veltrane/csv.h>
#include <veltrane/owned.h>
#include <veltrane/rval.h>
#include <veltrane/seq.h>
#include <veltrane/string_lib.h>

#include "vt-hub/table.h"

namespace vthub {

namespace {

constexpr std::size_t kCellWidth = 72;

// How a field of a chapter's lines is shown: a heading and, where it is a number with a meaning, its words. What few
// ask for, and what makes a table too wide to read, is shown only when asked for.
struct Column {
    const char *heading;
    std::function<std::string(const ReportReader &, const std::string &)> words = nullptr;
    bool only_wide = false;
};

struct ChapterShape {
    const char *title;
    std::vector<Column> columns;
    bool last_takes_rest = false;  // what follows the last column's field is shown in it too
};

std::string AsTime(const ReportReader &, const std::string &field)
{
    long seconds = 0;
    std::tm local{};
    char text[32];
    if (StringToLong(field.c_str(), &seconds) != 0) {
        return field;
    }
    const std::time_t time = seconds;
    if (localtime_r(&time, &local) == nullptr || std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &local) == 0) {
        return field;
    }
    return text;
}

int AsNumber(const std::string &field)
{
    const long number = StringToLongDefaultOnError(field.c_str(), -1);
    return number < 0 || number > 1000 ? -1 : static_cast<int>(number);
}

std::string AsKind(const ReportReader &reader, const std::string &field)
{
    return reader.diff_type_to_string(static_cast<DiffType>(AsNumber(field)));
}

std::string AsDirection(const ReportReader &reader, const std::string &field)
{
    return reader.direction_to_string(static_cast<LastSeenDirection>(AsNumber(field)));
}

std::string AsOutcome(const ReportReader &reader, const std::string &field)
{
    return reader.promise_state_to_string(static_cast<PromiseState>(AsNumber(field)));
}

std::string AsChange(const ReportReader &, const std::string &field)
{
    static const std::map<std::string, std::string> words{
        {"A", "added"}, {"M", "content"}, {"P", "permissions"}, {"D", "deleted"}};
    const auto known = words.find(field);
    return known != words.end() ? known->second : field;
}

std::string AsOverdue(const ReportReader &, const std::string &field)
{
    return field == "t" ? "yes" : field == "f" ? "no" : field;
}

std::string AsDataType(const ReportReader &, const std::string &field)
{
    switch (AsNumber(field)) {
        case VT_DATA_TYPE_STRING:
            return "string";
        case VT_DATA_TYPE_INT:
            return "int";
        case VT_DATA_TYPE_REAL:
            return "real";
        case VT_DATA_TYPE_STRING_LIST:
            return "slist";
        case VT_DATA_TYPE_INT_LIST:
            return "ilist";
        case VT_DATA_TYPE_REAL_LIST:
            return "rlist";
        case VT_DATA_TYPE_CONTAINER:
            return "data";
        default:
            return field;
    }
}

Column Plain(const char *heading) { return {heading}; }
Column Wide(const char *heading) { return {heading, nullptr, true}; }

ChapterShape DiffShape(const char *title, std::vector<Column> record_columns)
{
    ChapterShape shape{title, {{"TIME", AsTime}, {"KIND", AsKind}}};
    shape.columns.insert(shape.columns.end(), record_columns.begin(), record_columns.end());
    return shape;
}

std::vector<Column> OutcomeColumns()
{
    return {Wide("PROMISE"),   Wide("POLICY FILE"), Wide("RELEASE"),   {"OUTCOME", AsOutcome}, Wide("NAMESPACE"),
            Plain("BUNDLE"),   Plain("TYPE"),       Plain("PROMISER"), Wide("PATH"),           Plain("HANDLE"),
            Wide("PROMISEES"), Plain("MESSAGES"),   Wide("LINE"),      Wide("FILE HASH"),      Wide("TAGS")};
}

ChapterShape PromiseLogShape()
{
    ChapterShape shape{"repaired and not kept", {{"TIME", AsTime}}};
    const std::vector<Column> outcome = OutcomeColumns();
    shape.columns.insert(shape.columns.end(), outcome.begin(), outcome.end());
    return shape;
}

ChapterShape MeasurementShape(const char *title, const char *time)
{
    return {title, {Plain("SLOT"), Plain("DEVIATION"), Plain("AVERAGE"), Plain("LAST"), {time, AsTime}}};
}

const std::map<CodeBookIndex, ChapterShape> &Shapes()
{
    static const std::map<CodeBookIndex, ChapterShape> shapes{
        {vtr_code_class_diff, DiffShape("classes", {Plain("CLASS"), Plain("TAGS")})},
        {vtr_code_variable_diff,
         DiffShape(
             "variables",
             {Plain("NAMESPACE"), Plain("SCOPE"), Plain("NAME"), {"TYPE", AsDataType}, Plain("VALUE"), Plain("TAGS")})},
        {vtr_code_last_seen_diff, DiffShape("peers", {{"DIRECTION", AsDirection},
                                                      Plain("KEY"),
                                                      Plain("ADDRESS"),
                                                      Plain("USUAL INTERVAL (H)"),
                                                      {"LAST SEEN", AsTime}})},
        {vtr_code_software_diff, DiffShape("software", {Plain("NAME"), Plain("VERSION"), Plain("ARCHITECTURE")})},
        {vtr_code_software_patch_diff,
         DiffShape("patches", {Plain("NAME"), Plain("VERSION"), Plain("ARCHITECTURE"), Wide("STATUS")})},
        {vtr_code_execution_log_diff, DiffShape("promise outcomes", OutcomeColumns())},
        {vtr_code_execution_status,
         {"agent", {{"OVERDUE", AsOverdue}, Plain("USUAL INTERVAL (S)"), {"LAST RUN", AsTime}}}},
        {vtr_code_performance,
         {"performance",
          {Plain("EVENT"), Plain("DEVIATION (S)"), Plain("AVERAGE (S)"), Plain("LAST (S)"), {"TIME", AsTime}}}},
        {vtr_code_fchange,
         {"file changes", {{"TIME", AsTime}, Plain("FILE"), {"CHANGE", AsChange}, Plain("WHAT")}, true}},
        {vtr_code_fdiff, {"file differences", {}}},  // printed by PrintDifferences
        {vtr_code_monitor_mg, MeasurementShape("recent measurements", "TIME")},
        {vtr_code_monitor_yr, MeasurementShape("weekly averages", "WEEK FROM")},
        {vtr_code_monitor_hg, {"histograms", {Plain("SLOT"), Plain("SAMPLES BY DISTANCE FROM THE AVERAGE")}, true}},
        {vtr_code_promise_log, PromiseLogShape()},
    };
    return shapes;
}

// One line's cells; a field beyond the columns that are known is shown as it is.
std::vector<std::string> Cells(const ReportReader &reader, const ChapterShape &shape, const char *line, bool wide)
{
    const veltrane::SeqPtr fields(SeqParseCsvString(line));
    if (fields == nullptr) {
        return {line};
    }
    std::vector<std::string> cells;
    for (std::size_t i = 0; i < SeqLength(fields.get()); ++i) {
        const std::string field = static_cast<const char *>(SeqAt(fields.get(), i));
        if (shape.last_takes_rest && i >= shape.columns.size()) {
            cells.back() += " " + field;
            continue;
        }
        const Column column = i < shape.columns.size() ? shape.columns[i] : Column{""};
        if (wide || !column.only_wide) {
            cells.push_back(column.words != nullptr ? column.words(reader, field) : field);
        }
    }
    return cells;
}

Table ChapterTable(const ReportReader &reader, const ChapterShape &shape, const Seq *lines, bool wide)
{
    std::vector<std::string> headings;
    for (const Column &column : shape.columns) {
        if (wide || !column.only_wide) {
            headings.emplace_back(column.heading);
        }
    }
    Table table(headings);
    for (std::size_t i = 0; i < SeqLength(lines); ++i) {
        table.Add(Cells(reader, shape, static_cast<const char *>(SeqAt(lines, i)), wide));
    }
    return table;
}

// What changed in a file: a line for the change, and below it one for each line of the file.
void PrintDifference(std::ostream &out, const ReportReader &reader, const char *row)
{
    const veltrane::SeqPtr fields(SeqParseCsvString(row));
    if (fields == nullptr || SeqLength(fields.get()) != 4) {
        out << "  " << Printable(row) << '\n';
        return;
    }
    const auto field = [&fields](std::size_t i) {
        return std::string(static_cast<const char *>(SeqAt(fields.get(), i)));
    };
    out << "  " << Printable(AsTime(reader, field(0))) << "  " << Printable(field(1));
    if (!field(2).empty()) {
        out << "  (" << Printable(field(2)) << ')';
    }
    out << '\n';
    std::istringstream lines(field(3));
    for (std::string line; std::getline(lines, line, '\a');) {
        const std::size_t number = line.find(',');
        const std::size_t text = number == std::string::npos ? number : line.find(',', number + 1);
        if (text == std::string::npos) {
            out << "      " << Printable(line) << '\n';
            continue;
        }
        out << "    " << Printable(line.substr(0, number)) << ' '
            << Printable(line.substr(number + 1, text - number - 1)) << "  " << Printable(line.substr(text + 1))
            << '\n';
    }
}

void PrintChapter(std::ostream &out, const ReportReader &reader, CodeBookIndex chapter, const Seq *lines, bool wide)
{
    const auto known = Shapes().find(chapter);
    const std::size_t rows = SeqLength(lines);
    out << '\n'
        << reader.codebook[chapter] << "  " << (known != Shapes().end() ? known->second.title : "") << ", " << rows
        << (rows == 1 ? " row\n" : " rows\n");
    if (rows == 0) {
        return;
    }
    if (chapter == vtr_code_fdiff) {
        for (std::size_t i = 0; i < rows; ++i) {
            PrintDifference(out, reader, static_cast<const char *>(SeqAt(lines, i)));
        }
        return;
    }
    if (known != Shapes().end()) {
        ChapterTable(reader, known->second, lines, wide).Print(out, wide ? 0 : kCellWidth);
        return;
    }
    for (std::size_t i = 0; i < rows; ++i) {
        out << "  " << Printable(static_cast<const char *>(SeqAt(lines, i))) << '\n';
    }
}

// The chapters of a report as the stream brought them, then those that it did not bring.
std::vector<CodeBookIndex> ChaptersInOrder(const ReportReader &reader, const std::vector<std::string> &stream)
{
    std::vector<CodeBookIndex> chapters;
    std::array<bool, vtr_code_max> listed{};
    const auto list = [&](int chapter) {
        if (!listed[static_cast<std::size_t>(chapter)]) {
            listed[static_cast<std::size_t>(chapter)] = true;
            chapters.push_back(static_cast<CodeBookIndex>(chapter));
        }
    };
    for (const std::string &line : stream) {
        for (int chapter = 0; line.size() == 3 && chapter < vtr_code_max; ++chapter) {
            if (line == reader.codebook[chapter]) {
                list(chapter);
            }
        }
    }
    for (int chapter = 0; chapter < vtr_code_max; ++chapter) { list(chapter); }
    return chapters;
}

}  // namespace

void PrintReport(std::ostream &out, const ReportReader &reader, const ReportData *report,
                 const std::vector<std::string> &stream, bool wide)
{
    out << "Host " << Printable(report->hostkey) << '\n'
        << "Up to " << AsTime(reader, std::to_string(report->response_timestamp)) << ", clock error "
        << report->requested_timestamp << " s\n";
    for (const CodeBookIndex chapter : ChaptersInOrder(reader, stream)) {
        const Seq *lines = reader.get_chapter(report, chapter);
        if (lines != nullptr) {
            PrintChapter(out, reader, chapter, lines, wide);
        }
    }
}

void PrintStream(std::ostream &out, const std::vector<std::string> &lines, bool terminal)
{
    for (const std::string &line : lines) { out << (terminal ? Printable(line) : line) << '\n'; }
}

}  // namespace vthub

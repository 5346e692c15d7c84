// The inventories of package modules, as text and in their databases.
#include "libveltrane/package_inventory.h"

#include <algorithm>

#include <veltrane/csv.h>
#include <veltrane/owned.h>
#include <veltrane/seq.h>
#include <veltrane/writer.h>

namespace veltrane {

namespace {

constexpr size_t kLongestText = 1024;
constexpr char kInventoryKey[] = "<inventory>";  // in the databases of all hosts: never rename
constexpr char kNoteKey[] = "<note>";

// A value that is text and its zero, without the zero; nothing when it is absent or has no zero at its end.
std::optional<std::string> ReadText(dbid db, const std::string &module, const char *key, int key_size)
{
    DBHandle *opened = nullptr;
    if (!OpenSubDB(&opened, db, module.c_str())) {
        return std::nullopt;
    }
    const DBHandlePtr handle(opened);
    const int size = ValueSizeDB(opened, key, key_size);
    if (size < 1) {
        return std::nullopt;
    }
    std::string text(static_cast<size_t>(size), '\0');
    if (!ReadDB(opened, key, text.data(), size) || text.back() != '\0') {
        return std::nullopt;
    }
    text.pop_back();
    return text;
}

bool StoreText(dbid db, const std::string &module, const char *key, int key_size, const std::string &text)
{
    if (ReadText(db, module, key, key_size) == text) {
        return true;
    }
    DBHandle *opened = nullptr;
    if (!CreateSubDB(&opened, db, module.c_str())) {
        return false;
    }
    const DBHandlePtr handle(opened);
    return WriteDB(opened, key, text.c_str(), static_cast<int>(text.size()) + 1);
}

std::optional<Package> ParseLine(const std::string &line)
{
    const SeqPtr fields(SeqParseCsvString(line.c_str()));
    if (fields == nullptr || SeqLength(fields.get()) != 3) {
        return std::nullopt;
    }
    const auto field = [&fields](size_t i) { return std::string(static_cast<const char *>(SeqAt(fields.get(), i))); };
    return Package{field(0), field(1), field(2)};
}

}  // namespace

bool IsPackageText(const std::string &text)
{
    return !text.empty() && text.size() <= kLongestText && std::none_of(text.begin(), text.end(), [](char c) {
        return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
    });
}

std::string InventoryText(const std::vector<Package> &packages)
{
    Writer *const writer = StringWriter();
    for (const Package &package : packages) {
        CsvWriter *const csv = CsvWriterOpenSpecifyTerminate(writer, false);
        CsvWriterField(csv, package.name.c_str());
        CsvWriterField(csv, package.version.c_str());
        CsvWriterField(csv, package.architecture.c_str());
        CsvWriterClose(csv);
        WriterWriteChar(writer, '\n');
    }
    const TextPtr text(StringWriterClose(writer));
    return text.get();
}

std::optional<std::vector<Package>> ReadInventory(dbid db, const std::string &module)
{
    const std::optional<std::string> text = ReadText(db, module, kInventoryKey, sizeof(kInventoryKey));
    if (!text.has_value()) {
        return std::nullopt;
    }
    std::vector<Package> packages;
    const SeqPtr lines(SeqStringFromString(text->c_str(), '\n'));
    for (size_t i = 0; i < SeqLength(lines.get()); ++i) {
        std::optional<Package> package = ParseLine(static_cast<const char *>(SeqAt(lines.get(), i)));
        if (!package.has_value()) {
            return std::nullopt;
        }
        packages.push_back(*std::move(package));
    }
    return packages;
}

bool StoreInventory(dbid db, const std::string &module, const std::vector<Package> &packages)
{
    return StoreText(db, module, kInventoryKey, sizeof(kInventoryKey), InventoryText(packages));
}

std::string ReadInventoryNote(dbid db, const std::string &module)
{
    return ReadText(db, module, kNoteKey, sizeof(kNoteKey)).value_or("");
}

bool StoreInventoryNote(dbid db, const std::string &module, const std::string &note)
{
    return StoreText(db, module, kNoteKey, sizeof(kNoteKey), note);
}

}  // namespace veltrane

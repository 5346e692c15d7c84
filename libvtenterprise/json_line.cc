// Writing and reading JSON lines.
#include "libvtenterprise/json_line.h"

#include <cstdlib>

#include <veltrane/alloc.h>

namespace {

constexpr size_t kFirstRoom = 512;  // bytes: most records fit

}  // namespace

void JsonLWriteRecord(Writer *writer, const JsonElement *json) noexcept
{
    JsonWriteCompact(writer, json);
    (void)WriterWriteLen(writer, "\r\n", 2);  // a writer remembers its failure until it is closed
}

char *JsonLGetLineNext(FILE *file) noexcept
{
    char *line = nullptr;
    size_t room = 0;
    size_t length = 0;
    for (int c = 0; (c = getc_unlocked(file)) != EOF;) {
        if (length + 1 >= room) {  // a zero follows the last byte
            room = room == 0 ? kFirstRoom : 2 * room;
            line = static_cast<char *>(xrealloc(line, room));
        }
        line[length++] = static_cast<char>(c);
        if (c == '\n' && length > 1 && line[length - 2] == '\r') {
            break;
        }
    }
    if (line != nullptr) {
        line[length] = '\0';
    }
    return line;
}

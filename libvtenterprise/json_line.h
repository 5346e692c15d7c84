// JSON lines: files of one JSON text a record, each ended by CR LF.
//
// A lone line feed ends no record, and a compact JSON text never holds a bare CR or LF, so the pair is unambiguous.
// What is in a record is the reader's business; a torn last record comes back as it is and does not parse.
#ifndef LIBVTENTERPRISE_JSON_LINE_H
#define LIBVTENTERPRISE_JSON_LINE_H

#include <stdio.h>

#include <veltrane/json.h>
#include <veltrane/writer.h>

#include "libvtenterprise/export.h"

// Write the compact text of json, then CR LF.
VT_EXPORT void JsonLWriteRecord(Writer *writer, const JsonElement *json) noexcept;

// The next record of an open file with its line end: new; NULL at the end of the file. The last record may lack its
// line end. A zero byte inside a record ends the returned text early.
VT_EXPORT char *JsonLGetLineNext(FILE *file) noexcept;

#endif

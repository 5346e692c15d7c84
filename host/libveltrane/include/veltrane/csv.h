// The one CSV dialect of all files and streams.
//
// A record is fields with commas between; records end with CR LF. A field is quoted with " exactly when it
// contains a comma, a double quote, CR or LF, or begins or ends with a blank; quotes inside are doubled. An empty
// record has one empty field.
#ifndef VELTRANE_CSV_H
#define VELTRANE_CSV_H

#include <stdio.h>

#include <veltrane/types.h>

VT_BEGIN_DECLS

// new; the writer is lent and stays open; NULL for a NULL writer
CsvWriter *CsvWriterOpen(Writer *writer);

// terminate false: the last record is closed without CR LF
CsvWriter *CsvWriterOpenSpecifyTerminate(Writer *writer, bool terminate);

// the next field, any length; NULL writes an empty one
void CsvWriterField(CsvWriter *csv, const char *text);

// formatted, then quoted as needed
void CsvWriterFieldF(CsvWriter *csv, const char *format, ...) VT_PRINTF(2, 3);

// ends the record with CR LF, in either mode
void CsvWriterNewRecord(CsvWriter *csv);

// ends a record begun since the last NewRecord (CR LF only when terminating) and frees csv; never adds an empty
// record, never closes the Writer
void CsvWriterClose(CsvWriter *csv);

// new text of the next record without its CR LF or LF; NULL at the end of the file. Every '"' toggles quoting and a
// line end inside quotes is data. An unclosed quote runs to the end of the file and comes back as it is (it will
// not parse). A zero byte ends the returned text
char *GetCsvLineNext(FILE *fp);

// new Seq of new texts; NULL when quotes do not balance, when bytes stand between a closing quote and the comma, or
// a quote inside an unquoted field. One CR LF or LF after the last field is a terminator, not data (rows for old
// peers are stored with it); "" is one empty field
Seq *SeqParseCsvString(const char *record);

VT_END_DECLS

#endif

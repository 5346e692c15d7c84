// Which lines two lists have in common, in the same order: what is left of them is their difference.
//
// The result is that of one fixed table and one fixed way back through it, so that equal files give equal logs whatever
// computes them:
//
//     cell(r, c) = cell(r - 1, c - 1) + 1                        added line r is equal to removed line c
//                  else the larger of cell(r - 1, c), cell(r, c - 1)
//
// From the last cell: two equal lines are common, and both are gone back by one; else, if cell(r - 1, c) is as large as
// cell(r, c), the added list is gone back by one; else the removed list.
#ifndef LIBVTAGENT_LINE_DIFFERENCE_H
#define LIBVTAGENT_LINE_DIFFERENCE_H

#include <stdint.h>

#include "libvtagent/file_lines.h"
#include "libvtenterprise/export.h"

// What that table holds at most, whatever is really kept of it.
inline constexpr uint64_t kMaxTableCells = UINT32_MAX;
inline constexpr uint64_t kMaxTableBytes = 83886080;  // 4 a cell
inline constexpr uint64_t kTableCellBytes = 4;

// Delete the common lines of two lists, neither of them empty, in file order.
//
// Failure  false, and both lists are deleted and empty, when the table would be too large; said at info level
// Memory   a bit a cell, 2.6 MB where the table is largest; 8 bytes a line; a look-up of the shorter list
VT_EXPORT bool RemoveLongestCommonSubSequence(FileLine **added, FileLine **removed) noexcept;

#endif

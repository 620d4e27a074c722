#pragma once

// Rows: the encoded form of a table row that all processes exchange byte for byte.
//
//   row.setColumn<std::string>(nameSlot, "eth0", fdLen);  // fdLen: where the variable area begins
//   Korvo::StringValueReference name;
//   row.getColumn(nameSlot, name);                        // reads in place
//   std::cout << name << '\n';                            // eth0
//
// This header includes all that belongs to rows. To walk through it: rowFormat.h draws a row's
// bytes; rowReferences.h has values in place, rowEncoding.h their bytes, rowArray.h array columns;
// row.h is the row itself, rowWriter.h writes many columns of one, rowNested.h reads rows within
// rows. Row classes of tables are declared with TableRow.h; received rows are checked with
// rowCheck.h.

#include <Korvo/row.h>
#include <Korvo/rowArray.h>
#include <Korvo/rowEncoding.h>
#include <Korvo/rowFormat.h>
#include <Korvo/rowNested.h>
#include <Korvo/rowReferences.h>
#include <Korvo/rowWriter.h>

#pragma once

// Rows: the encoded form of a table row that all processes exchange byte for byte.
//
//   row.setColumn<std::string>(nameSlot, "eth0", fdLen);  // fdLen: where the variable area begins
//   Korvo::StringValueReference name;
//   row.getColumn(nameSlot, name);                        // reads in place
//   std::cout << name << '\n';                            // eth0
//
// Row classes of tables are declared with TableRow.h; received rows are checked with rowCheck.h.

#include <Korvo/rowFormat.h>      // the bytes of a row, drawn
#include <Korvo/rowReferences.h>  // values in place
#include <Korvo/rowEncoding.h>    // the bytes of values
#include <Korvo/rowArray.h>       // array columns
#include <Korvo/row.h>            // the row
#include <Korvo/rowWriter.h>      // writing many columns
#include <Korvo/rowNested.h>      // rows within rows

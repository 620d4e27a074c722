#pragma once

#include <Korvo/TableRow.h>

namespace secondSource {

const unsigned char* maskTable();
Korvo::len_t lengthOf(const Korvo::LayoutInfo& layout);
bool throwsOutOfRange();

}  // namespace secondSource

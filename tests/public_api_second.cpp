// Includes every public header, in another order than the source that it is linked with.

#include "public_api_second.h"

// clang-format off
#include <Velto/Platform.h>
#include <Velto/Exception.h>
#include <Velto/DebugSupport.h>
#include <Korvo/rowCheck.h>
#include <Korvo/layoutText.h>
#include <Korvo/korvo_types.h>
#include <Korvo/baseRow.h>
#include <Korvo/assertion.h>
#include <Korvo/Scheduler.h>
#include <Korvo/KorvoApi.h>
#include <Korvo/KoStrUtils.h>
#include <Korvo/RowConverter.h>
#include <Korvo/AnyRow.h>
// clang-format on

namespace secondSource {

const unsigned char* maskTable() {
  return &Korvo::byteMaskTbl[0];
}

Korvo::len_t lengthOf(const Korvo::LayoutInfo& layout) {
  return layout.baseLength;
}

bool throwsOutOfRange() {
  try {
    return Korvo::ArrayReference<std::string>()[0].empty();
  } catch (const Korvo::KoOutOfRange&) {
    return true;
  }
}

}  // namespace secondSource

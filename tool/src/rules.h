#pragma once

#include <Korvo/RowConverter.h>

#include <string>
#include <vector>

namespace korvotool {

/// What --alias column=former and --required column say. Throws Failure for an alias without '='.
Korvo::ConversionRules rulesOf(const std::vector<std::string>& aliases,
                               const std::vector<std::string>& required);

}  // namespace korvotool

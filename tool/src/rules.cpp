#include "rules.h"

#include "failure.h"

namespace korvotool {

Korvo::ConversionRules rulesOf(const std::vector<std::string>& aliases,
                               const std::vector<std::string>& required) {
  Korvo::ConversionRules rules;
  rules.required = required;
  for (const std::string& alias : aliases) {
    const std::size_t equals = alias.find('=');
    if (equals == alias.npos || equals == 0 || equals + 1 == alias.size()) {
      throw Failure(statusUsage, "not column=former: " + alias);
    }
    rules.aliases.push_back({alias.substr(0, equals), alias.substr(equals + 1)});
  }
  return rules;
}

}  // namespace korvotool

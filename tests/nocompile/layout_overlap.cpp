// Refused: two columns overlap

// Each byte of the fixed area belongs to one column, in whatever order they are declared.

#include <Korvo/TableRow.h>

using Good = Korvo::RowLayout<1, Korvo::Column<"behind", std::string, 20>,
                              Korvo::Column<"before", std::uint64_t, 12>>;
#ifdef BAD_LINE
using Bad = Korvo::RowLayout<1, Korvo::Column<"behind", std::string, 20>,
                             Korvo::Column<"before", std::uint64_t, 13>>;
constexpr auto bad = Bad::baseLength;
#endif

int main() {
  return Good::baseLength == 24 ? 0 : 1;
}

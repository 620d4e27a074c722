// Refused: two columns have the same name

// A name says which column is meant.

#include <Korvo/TableRow.h>

using Good =
    Korvo::RowLayout<1, Korvo::Column<"name", std::string>, Korvo::Column<"Name", std::string>>;
#ifdef BAD_LINE
using Bad =
    Korvo::RowLayout<1, Korvo::Column<"name", std::string>, Korvo::Column<"name", std::string>>;
constexpr auto bad = Bad::baseLength;
#endif

int main() {
  return Good::baseLength == 16 ? 0 : 1;
}

// A program of a user that takes from the headers what needs nothing of the library.

#include <Korvo/KoStrUtils.h>
#include <Korvo/KorvoApi.h>
#include <Korvo/Scheduler.h>
#include <Korvo/korvo_types.h>

#include <string>
#include <vector>

int main() {
  const std::vector<std::string> texts = {"10.1.2.3"};
  return Korvo::IpAddr(1) < Korvo::IpAddr(1) || texts.size() != 1;
}

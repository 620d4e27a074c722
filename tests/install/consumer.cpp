// A program of a user of the installed library.

#include <Korvo/KoStrUtils.h>
#include <Korvo/korvo_types.h>

#include <iostream>
#include <string>

int main() {
  try {
    const Korvo::IpGenPrefix wide("10.0.0.0/8");
    const Korvo::IpGenPrefix narrow("10.1.0.0/16");
    std::cout << wide << (wide.contains(narrow) ? " contains " : " does not contain ") << narrow
              << '\n';
    const Korvo::IpGenPrefix refused("10.0.0.0/33");
    std::cout << "accepted: " << refused << '\n';
  } catch (const Korvo::KoBaseException& error) {
    std::cout << error.name() << ": " << error.what() << '\n';
  }
}

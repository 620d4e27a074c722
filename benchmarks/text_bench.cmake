find_package(absl REQUIRED)
find_package(OpenSSL REQUIRED COMPONENTS Crypto)
pkg_check_modules(RE2 REQUIRED IMPORTED_TARGET re2)
set(contestants absl::strings PkgConfig::RE2 OpenSSL::Crypto)

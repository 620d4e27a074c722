find_package(Boost REQUIRED)
find_package(SQLite3 REQUIRED)
pkg_check_modules(BENCH_NDPI REQUIRED IMPORTED_TARGET libndpi)
set(contestants Korvo::Tables Boost::headers SQLite::SQLite3 PkgConfig::BENCH_NDPI)

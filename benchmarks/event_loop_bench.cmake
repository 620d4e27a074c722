find_package(Boost REQUIRED)
find_package(Threads REQUIRED)
pkg_check_modules(BENCH_LIBUV REQUIRED IMPORTED_TARGET libuv)
list(APPEND contestants Korvo::EventLoop Boost::headers Threads::Threads PkgConfig::BENCH_LIBUV)

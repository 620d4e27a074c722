find_package(Boost REQUIRED)
find_package(Threads REQUIRED)
pkg_check_modules(BENCH_LIBUV REQUIRED IMPORTED_TARGET libuv)
pkg_check_modules(BENCH_LIBEVENT REQUIRED IMPORTED_TARGET libevent_core)
list(APPEND contestants Korvo::EventLoop Boost::headers Threads::Threads PkgConfig::BENCH_LIBUV
  PkgConfig::BENCH_LIBEVENT)

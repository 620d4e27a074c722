find_package(Boost REQUIRED)
find_package(Threads REQUIRED)
set(contestants netdb_core demo_data Boost::headers Threads::Threads)

# What the library itself needs; tests, benchmarks and examples find their own.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(Boost 1.74 REQUIRED)
find_package(fmt REQUIRED)
pkg_check_modules(ZelBrelo_LIBEVENT REQUIRED IMPORTED_TARGET libevent_core)
pkg_check_modules(ZelBrelo_LIBEVENT_PTHREADS REQUIRED IMPORTED_TARGET libevent_pthreads)
pkg_check_modules(ZelBrelo_LIBUNWIND REQUIRED IMPORTED_TARGET libunwind)

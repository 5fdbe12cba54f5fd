# Third-party libraries from the system (Debian packages, or an armhf sysroot when cross
# compiling): cJSON for the module, OpenSSL's libcrypto for the kits, GoogleTest built from
# the sources in /usr/src/googletest for the tests, Google Benchmark for the benchmarks.
# scripts/install-deps.sh installs all of them.

include(${CMAKE_CURRENT_LIST_DIR}/VexoCJSON.cmake)
if(NOT TARGET vexo::cjson)
    message(FATAL_ERROR "cJSON (cjson/cJSON.h, libcjson) not found; run scripts/install-deps.sh")
endif()

# ---- threads ----
set(THREADS_PREFER_PTHREAD_FLAG ON)
find_package(Threads REQUIRED)

# ---- OpenSSL's libcrypto (OpenSSL::Crypto), for the kits ----
find_package(OpenSSL REQUIRED COMPONENTS Crypto)
# Debian keeps the architecture-specific OpenSSL headers (openssl/configuration.h) in the
# multiarch include directory. The host compiler searches it on its own; a cross compiler
# does not search the sysroot's, so add it to the imported target.
if(CMAKE_CROSSCOMPILING AND CMAKE_LIBRARY_ARCHITECTURE)
    # find_path looks in <prefix>/include/<architecture> before <prefix>/include.
    find_path(VEXO_OPENSSL_ARCH_INCLUDE_DIR openssl/configuration.h)
    if(VEXO_OPENSSL_ARCH_INCLUDE_DIR AND NOT VEXO_OPENSSL_ARCH_INCLUDE_DIR STREQUAL OPENSSL_INCLUDE_DIR)
        set_property(TARGET OpenSSL::Crypto APPEND PROPERTY
            INTERFACE_INCLUDE_DIRECTORIES ${VEXO_OPENSSL_ARCH_INCLUDE_DIR})
    endif()
endif()

# ---- GoogleTest and GoogleMock, from source ----
# Built inside this project so that they use the same compiler (native or cross) and the same
# sanitizer flags as the tests. Only built when a test links them (EXCLUDE_FROM_ALL).
if(VEXO_BUILD_TESTS)
    set(VEXO_GOOGLETEST_SOURCE_DIR /usr/src/googletest CACHE PATH "GoogleTest sources (Debian package googletest)")
    if(NOT EXISTS ${VEXO_GOOGLETEST_SOURCE_DIR}/CMakeLists.txt)
        message(FATAL_ERROR "GoogleTest sources not found in ${VEXO_GOOGLETEST_SOURCE_DIR}; run scripts/install-deps.sh")
    endif()
    set(BUILD_GMOCK ON CACHE BOOL "" FORCE)
    set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
    set(gtest_build_tests OFF CACHE BOOL "" FORCE)
    set(gmock_build_tests OFF CACHE BOOL "" FORCE)
    add_subdirectory(${VEXO_GOOGLETEST_SOURCE_DIR} ${CMAKE_BINARY_DIR}/third_party/googletest EXCLUDE_FROM_ALL)
    foreach(gtest_target IN ITEMS gtest gtest_main gmock gmock_main)
        vexo_target_sanitize(${gtest_target})
    endforeach()
    add_library(vexo::gtest ALIAS gtest)
    add_library(vexo::gtest_main ALIAS gtest_main)
    add_library(vexo::gmock ALIAS gmock)
endif()

# ---- Google Benchmark, for the benchmarks (native builds only) ----
if(VEXO_BUILD_BENCH AND NOT CMAKE_CROSSCOMPILING)
    find_package(benchmark REQUIRED)
endif()

# ---- for the host kit, the cloud service and the host tools (native builds only) ----
if(VEXO_BUILD_HOST)
    find_package(nlohmann_json 3 REQUIRED)
    # The cloud service keeps its state in one SQLite database per data directory.
    find_package(SQLite3 REQUIRED)
    find_package(PkgConfig REQUIRED)
    # Or, with --db postgresql://..., in PostgreSQL through libpq.
    pkg_check_modules(VEXO_LIBPQ REQUIRED IMPORTED_TARGET libpq)
    add_library(vexo::libpq ALIAS PkgConfig::VEXO_LIBPQ)
    pkg_check_modules(VEXO_LIBAV REQUIRED IMPORTED_TARGET
        libavformat libavcodec libavutil libswscale libswresample)
    add_library(vexo::libav ALIAS PkgConfig::VEXO_LIBAV)
    # The kit's network transport: libcurl for the cloud calls, libmosquitto for commands.
    find_package(CURL REQUIRED)
    pkg_check_modules(VEXO_MOSQUITTO REQUIRED IMPORTED_TARGET libmosquitto)
    add_library(vexo::mosquitto ALIAS PkgConfig::VEXO_MOSQUITTO)
    # The HTTP client of the admin commands and the tests (cpp-httplib, built by Debian with
    # OpenSSL).
    pkg_check_modules(VEXO_HTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)
    add_library(vexo::httplib ALIAS PkgConfig::VEXO_HTTPLIB)
    # Boost.Asio and Beast, header only (Debian's libboost-dev): the cloud service's HTTP
    # server and the load generator's client; OpenSSL's libssl for HTTPS.
    find_package(Boost 1.74 REQUIRED)
    add_library(vexo::boost ALIAS Boost::headers)
    find_package(OpenSSL REQUIRED COMPONENTS SSL)
endif()

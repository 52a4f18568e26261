# The fuzz configuration (-DORVANE_FUZZ=ON, scripts/build fuzz): clang and
# libFuzzer. Every object is compiled with coverage instrumentation under
# AddressSanitizer and UndefinedBehaviorSanitizer; the fuzz targets alone
# link libFuzzer's main. Boost.JSON is compiled here from its headers rather
# than taken from the shared library, so that the parser behind the plugin
# descriptions and the CLI definitions is instrumented like our own code.
if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  message(FATAL_ERROR "ORVANE_FUZZ needs clang: configure with CC=clang CXX=clang++")
endif()
if(ORVANE_SANITIZE)
  message(FATAL_ERROR "ORVANE_FUZZ chooses its own sanitizers; leave ORVANE_SANITIZE empty")
endif()

set(ORVANE_FUZZ_SANITIZERS address,undefined)
# -O1 whatever the build type: fast enough to fuzz, and assertions stay on
# in the Debug build that scripts/build uses.
add_compile_options(-O1 -fno-omit-frame-pointer -fno-sanitize-recover=all
                    -fsanitize=fuzzer-no-link,${ORVANE_FUZZ_SANITIZERS})
add_link_options(-fsanitize=${ORVANE_FUZZ_SANITIZERS})

# Defined before any find_package(Boost COMPONENTS json), which then finds
# the target present and leaves it alone.
add_library(orvane_boost_json STATIC ${PROJECT_SOURCE_DIR}/tests/fuzz/BoostJson.cpp)
target_link_libraries(orvane_boost_json PUBLIC Boost::headers)
add_library(Boost::json ALIAS orvane_boost_json)

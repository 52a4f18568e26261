// Boost.JSON's sources, compiled into the fuzz configuration in place of
// the shared library so that its parser is instrumented (see
// cmake/Fuzzing.cmake).
#include <boost/json/src.hpp>

// The one translation unit that compiles Boost.JSON's sources.
#include <boost/json/src.hpp>

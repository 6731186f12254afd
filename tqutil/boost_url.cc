// Boost.URL's own sources, compiled into tqutil on Windows, where it is used header-only (the
// build links no Boost library there). Elsewhere the system's Boost.URL library is linked.
#include <boost/url/src.hpp>

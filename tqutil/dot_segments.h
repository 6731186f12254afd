// The dot segments of a URL's path, removed as the URL's own rules remove them, for every reader
// of a path that must name what the URL names. Internal to tqutil (declared here, not exported).
#pragma once

#include <string>
#include <string_view>

namespace qv::url_path {

// RFC 3986 remove_dot_segments on encoded path text: "." and ".." segments (written with
// encoded dots or not) go, an empty segment is a segment like any other, and only a literal "/"
// separates segments. ".." segments that would climb above the root are dropped ("http://a/../g"
// is "http://a/g").
std::string RemoveDotSegments(std::string_view path);

}  // namespace qv::url_path

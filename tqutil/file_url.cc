#include "tqutil/file_url.h"

#include <cctype>
#include <filesystem>
#include <string>
#include <string_view>

#include <boost/url/grammar/ci_string.hpp>
#include <boost/url/parse.hpp>
#include <boost/url/pct_string_view.hpp>
#include <boost/url/url_view.hpp>

#include "tqutil/dot_segments.h"
#include "tqutil/file_streams.h"
#include "tqutil/percent_encoding.h"
#include "tqutil/strings.h"
#include "tqutil/text_path.h"

namespace {

bool IsAsciiAlpha(wchar_t c) { return (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z'); }

// UTF-8 URI text with non-ASCII bytes, spaces and controls percent-encoded (file URLs are often
// written with the path as it stands; those characters never occur in a valid URI). Unlike
// TqUURL, which takes a URL with a space or a control for no URL at all.
std::string FileUrlAsUriText(std::string_view utf8) {
  std::string out;
  for (char ch : utf8) {
    const auto b = static_cast<unsigned char>(ch);
    if (b > 0x20 && b < 0x7F) {
      out.push_back(ch);
    } else {
      qv::percent::AppendEscape(out, b);
    }
  }
  return out;
}

// The local path named by a "file:" URL; empty when the text is not one or names another host.
std::filesystem::path FileUrlToPath(const wchar_t* url) {
  // Text that no UTF-8 holds would get U+FFFD in its path: the name of another file.
  bool whole = true;
  const std::string utf8 = qv::utf8::FromWide(url, &whole);
  if (!whole) return {};
  const std::string uri = FileUrlAsUriText(utf8);  // the parsed view points into it
  auto parsed = boost::urls::parse_uri(uri);
  if (!parsed) return {};
  const boost::urls::url_view& u = *parsed;
  // Neither a scheme nor a host name has case.
  using boost::urls::grammar::ci_is_equal;
  if (!ci_is_equal(u.scheme(), "file")) return {};
  const std::string host = u.host();
  if (!host.empty() && !ci_is_equal(host, "localhost")) return {};
  // An encoded separator is part of a file's name in the URL ("..%2Ff" is one segment), but
  // decoded it would separate names, and "..%2F" would climb out of the directory the URL names.
  std::string_view encoded = u.encoded_path();
  for (std::size_t at = encoded.find('%'); at != std::string_view::npos;
       at = encoded.find('%', at + 1)) {
    const std::string_view code = encoded.substr(at + 1, 2);
    if (code == "2F" || code == "2f") return {};
#if defined(_WIN32)
    if (code == "5C" || code == "5c") return {};
#endif
  }
  // Dot segments go as the URL's rules remove them ("d/link/../f" is "d/f", "d//../f" is "d/f"),
  // as TqUURL normalises them and a cache keys the URL: the system would climb out of a link's
  // target, or tidy away an empty segment first, and open another file.
  const std::string dotless = qv::url_path::RemoveDotSegments(encoded);
  const auto escaped = boost::urls::make_pct_string_view(dotless);  // a view into `dotless`
  if (!escaped) return {};
  std::string path = escaped->decode();
  // "file:////server/share/x" has no host, but its path is one of another host's files on
  // Windows (a UNC path), which the host check above refuses when the URL names it there.
  if (path.substr(0, 2) == "//") return {};
#if defined(_WIN32)
  // "file:///C:/x" names "C:/x".
  if (path.size() >= 3 && path[0] == '/' && std::isalpha(static_cast<unsigned char>(path[1])) &&
      path[2] == ':') {
    path.erase(0, 1);
  }
#endif
  // A NUL decoded into the path would end it where the system reads it: another file.
  if (path.empty() || path.find('\0') != std::string::npos) return {};
  return qv::PathOfUtf8(path).lexically_normal();
}

// A file stream that also reports the file's modification time and a tag made of its size and
// modification time, so that a changed file gives a different tag.
class FileUrlReadStream : public qv::io::FileReadStream {
 public:
  explicit FileUrlReadStream(TqUSysFile::Handle file) : FileReadStream(file) {}
  void SetTag(std::string tag, std::optional<std::int64_t> mtime) {
    m_tag = std::move(tag);
    m_modified = mtime;
  }

  qv::io::StreamMetaData MetaData() override {
    qv::io::StreamMetaData meta = FileReadStream::MetaData();
    meta.etag = m_tag;
    meta.modified = m_modified;
    return meta;
  }

 private:
  std::string m_tag;
  std::optional<std::int64_t> m_modified;
};

}  // namespace

int TqUFileURL::GetURLType(const wchar_t* name) {
  if (!name || !IsAsciiAlpha(name[0])) return 0;
  std::size_t i = 1;
  while (IsAsciiAlpha(name[i]) || (name[i] >= L'0' && name[i] <= L'9') || name[i] == L'+' ||
         name[i] == L'-' || name[i] == L'.') {
    ++i;
  }
  // One letter before the colon is a drive ("C:\x"), not a scheme.
  return name[i] == L':' && i >= 2 ? 1 : 0;
}

std::unique_ptr<qv::io::IDataReadStream> TqUFileURL::OpenURLReadStream(const wchar_t* url,
                                                                       qv::stop_token stop) {
  if (!url || stop.stop_requested()) return nullptr;
  try {
    // A URL the caller names may lead through links to its file.
    const std::filesystem::path path = FileUrlToPath(url);
    if (path.empty()) return nullptr;
    TqUSysFile::Handle file = TqUSysFile::OpenNamedFile(path);
    if (file == TqUSysFile::kInvalid) return nullptr;
    std::unique_ptr<FileUrlReadStream> stream;
    try {
      stream = std::make_unique<FileUrlReadStream>(file);
    } catch (...) {
      TqUSysFile::CloseFile(file);
      throw;
    }
    const std::int64_t size = TqUSysFile::GetFileSize(file);
    // The time of the file opened, not of the name: a file renamed over the name meanwhile
    // must not lend its time to these bytes.
    std::optional<std::int64_t> mtime;
    std::int64_t mtime_ns = 0;
    const bool timed = TqUSysFile::GetFileModifiedTime(file, &mtime_ns);
    if (timed) mtime = mtime_ns / 1'000'000'000;
    // The time to the file system's full resolution: a file rewritten at the same size within
    // one second must get another tag, or a cache keeps serving its old bytes.
    std::string tag = std::to_string(size) + "-" + (timed ? std::to_string(mtime_ns) : "0");
    stream->SetTag(std::move(tag), mtime);
    return stream;
  } catch (const std::exception&) {
    return nullptr;
  }
}

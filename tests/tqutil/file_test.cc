#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <future>
#include <map>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "tests/tqutil/temp_dir.h"
#include "tqutil/file_protocol.h"
#include "tqutil/file_streams.h"
#include "tqutil/file_url.h"
#include "tqutil/streams.h"
#include "tqutil/sys_file.h"

namespace {

using qv::io::FileReadStream;
using qv::io::FileWriteStream;
using qv::io::MemoryStream;
using qv::io::StreamPosition;
using F = TqUSysFile;
using Path = std::filesystem::path;

struct Open {  // closed at the end of the scope
  F::Handle h;
  Open(const Path& p, std::uint32_t access, std::uint32_t share, std::uint32_t creation)
      : h(F::OpenFile(p, access, share, creation, 0, 0)) {}
  ~Open() { F::CloseFile(h); }
  Open(const Open&) = delete;
  explicit operator bool() const { return h != nullptr; }
};
Open Reader(const Path& p) { return {p, F::kAccessRead, F::kShareRead, F::kOpenExisting}; }
Open Creator(const Path& p) { return {p, F::kAccessWrite, F::kShareNone, F::kCreateAlways}; }
Open Rewriter(const Path& p) { return {p, F::kAccessWrite, F::kShareNone, F::kOpenExistingWrite}; }

void WriteText(const Path& p, const std::string& s) { std::ofstream(p, std::ios::binary) << s; }
std::string ReadText(const Path& p) {
  std::ifstream in(p, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// A child process that holds a file open until destroyed. Pipes, not sleeps, order the two.
struct Holder {
  Holder(const Path& path, std::uint32_t access, std::uint32_t share, std::uint32_t creation,
         const std::string& write = "") {
    int ready[2], release[2];
    if (::pipe(ready) != 0 || ::pipe(release) != 0) return;
    if ((pid = ::fork()) == 0) {
      F::Handle h = F::OpenFile(path, access, share, creation, 0, 0);
      std::uint64_t n = 0;
      char ok = h && (write.empty() || F::WriteFile(h, write.data(), write.size(), &n));
      ::close(release[1]);
      if (::write(ready[1], &ok, 1) == 1) (void)::read(release[0], &ok, 1);  // until released
      ::_exit(0);
    }
    ::close(ready[1]);
    ::close(release[0]);
    release_fd = release[1];
    char ok = 0;
    opened = ::read(ready[0], &ok, 1) == 1 && ok;
    ::close(ready[0]);
  }
  ~Holder() {
    if (pid > 0 && ::close(release_fd) == 0) ::waitpid(pid, nullptr, 0);
  }
  pid_t pid = -1;
  int release_fd = -1;
  bool opened = false;
};

std::string ReadAll(qv::io::IDataReadStream& s, std::uint64_t chunk) {
  std::string out;
  std::string buffer(chunk, '\0');
  while (const auto n = s.Read(buffer.data(), chunk)) out.append(buffer.data(), n);
  return out;
}

TEST(SysFileTest, SharingBetweenProcesses) {
  tq::test::TempDir dir;
  const auto path = dir / "entry.tmp";
  {
    Holder writer(path, F::kAccessWrite, F::kShareNone, F::kCreateAlways, "winner's body");
    ASSERT_TRUE(writer.opened);
    EXPECT_FALSE(Reader(path)) << "the writer in the other process excludes readers";
    // Regression: the loser of a race for the same temporary file must not truncate the
    // winner's half-written body.
    EXPECT_FALSE(Creator(path));
    EXPECT_EQ(ReadText(path), "winner's body");
  }
  {
    Holder reader(path, F::kAccessRead, F::kShareRead, F::kOpenExisting);
    ASSERT_TRUE(reader.opened);
    EXPECT_TRUE(Reader(path)) << "readers in two processes coexist";
    EXPECT_FALSE(Rewriter(path)) << "a reader in another process excludes writers";
  }
  Open creator = Creator(path);
  ASSERT_TRUE(creator);
  EXPECT_EQ(F::GetFileSize(creator.h), 0) << "create-always empties the file once it holds it";
}

// The window between a writer's open and its lock, held open on purpose: a read lease makes the
// open wait in the kernel until the holder lets go, and the holder first renames a new file over
// the path (or not, to show that the rename is what makes the open fail).
TEST(SysFileTest, AWriterIsRefusedWhenAFileIsRenamedOverThePathDuringItsOpen) {
  tq::test::TempDir dir;
  const auto path = dir / "entry";
  const int signal = SIGRTMIN + 1;  // stays blocked on this thread: only sigtimedwait takes it
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, signal);
  ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &set, nullptr), 0);
  for (const bool rename : {true, false}) {
    SCOPED_TRACE(rename ? "renamed" : "not renamed");
    WriteText(path, "old");
    WriteText(dir / "new", "new");
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const f_owner_ex self{F_OWNER_TID, static_cast<pid_t>(::syscall(SYS_gettid))};
    if (fd < 0 || ::fcntl(fd, F_SETSIG, signal) != 0 || ::fcntl(fd, F_SETOWN_EX, &self) != 0 ||
        ::fcntl(fd, F_SETLEASE, F_RDLCK) != 0) {
      const std::string why = std::strerror(errno);
      if (fd >= 0) ::close(fd);
      GTEST_SKIP() << "no file leases here: " << why;
    }
    auto writer = std::async(std::launch::async, [&] { return bool(Rewriter(path)); });
    const timespec limit{60, 0};
    const int got = ::sigtimedwait(&set, nullptr, &limit);  // the writer is inside its open
    const bool renamed =
        got == signal && rename && std::rename((dir / "new").c_str(), path.c_str()) == 0;
    ::fcntl(fd, F_SETLEASE, F_UNLCK);
    ::close(fd);
    ASSERT_EQ(got, signal);
    EXPECT_EQ(renamed, rename);
    EXPECT_EQ(writer.get(), !rename);
  }
}

TEST(SysFileTest, DirectoryListsOpensAndRemovesByNameAndBadHandlesAreRefused) {
  tq::test::TempDir dir;
  WriteText(dir / "file", "12345");
  EXPECT_FALSE(Reader(dir.Path())) << "a directory is not a file";
  EXPECT_EQ(F::OpenFile(dir / "file", 0, 1, 3, 1, 0), nullptr) << "reserved value";
  char buffer[4];
  std::uint64_t n = 0;
  EXPECT_FALSE(F::ReadFile(nullptr, buffer, 4, &n));
  EXPECT_FALSE(F::WriteFile(reinterpret_cast<F::Handle>(buffer), buffer, 4, &n)) << "foreign";
  F::Handle h = F::OpenFile(dir / "file", F::kAccessRead, F::kShareRead, F::kOpenExisting, 0, 0);
  ASSERT_TRUE(h);
  EXPECT_TRUE(F::CloseFile(h));
  EXPECT_FALSE(F::CloseFile(h));

  std::filesystem::create_symlink(dir / "file", dir / "link");
  std::filesystem::create_symlink(dir / "missing", dir / "dangling");

  const TqUSysDirectory directory(dir.Path());
  ASSERT_FALSE(directory.Error());
  using Item = std::pair<bool, std::int64_t>;  // regular, size
  std::map<std::string, Item> items;
  EXPECT_FALSE(directory.List([&](const TqUSysDirectory::Item& i) {
    items[std::string(i.name, i.length)] = {i.regular, i.size};
  }));
  EXPECT_EQ(items, (std::map<std::string, Item>{
                       {"file", {true, 5}}, {"link", {true, 5}},  // a link is followed
                       {"dangling", {false, -1}}}));
  {
    Open writer = Rewriter(dir / "file");
    ASSERT_TRUE(writer);
    EXPECT_EQ(directory.OpenFile("file", F::kAccessRead, F::kShareRead, F::kOpenExisting, 0, 0),
              nullptr)
        << "the sharing rules hold by name too";
  }
  std::error_code ec;
  TqUSysDirectory::SetRemoveFaultForTesting(
      [](const TqUSysDirectory::Char* name) { return std::strcmp(name, "file") == 0; });
  EXPECT_FALSE(directory.RemoveFile("file", ec));
  EXPECT_EQ(ec, std::errc::permission_denied);
  TqUSysDirectory::SetRemoveFaultForTesting({});
  EXPECT_TRUE(directory.RemoveFile("link", ec));  // the link, not what it leads to
  EXPECT_TRUE(std::filesystem::exists(dir / "file"));
  EXPECT_TRUE(directory.RemoveFile("file", ec));

  EXPECT_EQ(TqUSysDirectory(dir / "none").Error(), std::errc::no_such_file_or_directory);
}

TEST(MemoryStreamTest, StreamsOverOneSinkKeepTheirOwnPositions) {
  auto first = std::make_unique<MemoryStream>();
  first->Write("abcdef", 6);
  MemoryStream second(first->Sink());
  char buffer[3];
  ASSERT_EQ(second.Read(buffer, 2), 2u);
  EXPECT_EQ(ReadAll(*first, 4), "abcdef");
  first->Write("gh", 2);
  first.reset();  // the sink outlives the writer
  EXPECT_EQ(ReadAll(second, 3), "cdefgh");
  EXPECT_EQ(second.RSeek(-5, StreamPosition::End), 3u);
  EXPECT_EQ(second.RSeek(1, StreamPosition::Current), 4u);
  EXPECT_EQ(ReadAll(second, 1), "efgh");
  EXPECT_THROW(second.RSeek(-1, StreamPosition::Begin), std::runtime_error);
  EXPECT_EQ(second.RTell(), 8u) << "a refused seek leaves the position";
}

TEST(FileStreamTest, BaseOffsetIsPositionZeroAndFileUrlsOpenTheSameBytes) {
  tq::test::TempDir dir;
  const auto path = dir / "f";
  {
    WriteText(path, "HDR");
    FileWriteStream w(
        F::OpenFile(path, F::kAccessWrite, F::kShareNone, F::kOpenExistingWrite, 0, 0));
    w.SetBaseOffset(3);
    EXPECT_EQ(w.Write("abcdef", 6), 6u);
    EXPECT_EQ(w.WSeek(1, StreamPosition::Begin), 1u);
    EXPECT_EQ(w.Write("B", 1), 1u);
    EXPECT_FALSE(FileReadStream::Create(path)) << "the stream holds the file";
  }
  EXPECT_FALSE(FileReadStream::Create(dir / "missing"));
  auto s = FileReadStream::Create(path);
  ASSERT_TRUE(s);
  s->SetBaseOffset(3);
  EXPECT_EQ(*s->MetaData().size, 6u);
  EXPECT_EQ(ReadAll(*s, 4), "aBcdef");
  EXPECT_EQ(s->RSeek(-2, StreamPosition::End), 4u);
  EXPECT_THROW(s->RSeek(-7, StreamPosition::End), std::runtime_error);

  const std::wstring url = L"file://" + qv::Utf8ToWide(dir.Path().string()) + L"/%66";
  auto u = TqUFileURL::OpenURLReadStream(url.c_str(), {});
  ASSERT_TRUE(u);
  EXPECT_EQ(ReadAll(*u, 4), "HDRaBcdef");
  const auto meta = u->MetaData();
  ASSERT_TRUE(meta.etag && meta.modified);
  EXPECT_EQ(*meta.etag, "9-" + std::to_string(*meta.modified)) << "a tag from size and time";
  EXPECT_FALSE(TqUFileURL::OpenURLReadStream(L"file://otherhost/etc/hostname", {}));
  qv::stop_source stop;
  stop.request_stop();
  EXPECT_FALSE(TqUFileURL::OpenURLReadStream(url.c_str(), stop.get_token()))
      << "a stopped open does not start";

  if (std::filesystem::exists("/dev/full")) {
    FileWriteStream full(
        F::OpenFile("/dev/full", F::kAccessWrite, F::kShareRead, F::kOpenExistingWrite, 0, 0));
    EXPECT_THROW(full.Write("x", 1), std::runtime_error);
  }
}

TEST(FileProtocolTest, ResolveAbsoluteFileOrUrl) {
  const auto Absolute = [](const wchar_t* path, const wchar_t* base, const wchar_t* directory) {
    TqUWideStringBuffer out(L"untouched");
    if (!TqUFileProtocol::ResolveAbsoluteFileOrURL(path, base, directory, &out)) {
      return std::wstring(L"<fail>");
    }
    return std::wstring(out.View());
  };
  EXPECT_EQ(Absolute(L"..\\up.png", L"http://h/docs/page.html", nullptr), L"http://h/up.png");
  EXPECT_EQ(Absolute(L"b.txt", L"sub/a.txt", L"/dir"), L"/dir/sub/b.txt");
  EXPECT_EQ(Absolute(nullptr, L"http://h/", nullptr), L"<fail>");
}

TEST(FileProtocolRegistryTest, CountedLifetimeAndCaseInsensitiveSchemes) {
  TqUFileProtocolRegistry::Initialise();
  TqUFileProtocolRegistry::Initialise();
  TqUFileProtocolRegistry* registry = TqUFileProtocolRegistry::Get();
  ASSERT_NE(registry, nullptr);
  TqUFileProtocol http, other;
  EXPECT_TRUE(registry->Register(L"HTTP", &http));
  EXPECT_FALSE(registry->Register(L"http", &other)) << "the first registration stays";
  EXPECT_EQ(registry->Lookup(L"Http"), &http);
  EXPECT_EQ(registry->Unregister(L"hTTp"), &http);
  EXPECT_EQ(registry->Lookup(L"http"), nullptr);

  TqUFileProtocolRegistry::Terminate();
  EXPECT_EQ(TqUFileProtocolRegistry::Get(), registry) << "still counted once";
  TqUFileProtocolRegistry::Terminate();
  EXPECT_EQ(TqUFileProtocolRegistry::Get(), nullptr);
}

}  // namespace

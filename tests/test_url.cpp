#include <Lirra/URL.h>

#include <gtest/gtest.h>

#include "LoopbackServer.h"

#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <thread>

using KeloTest::LoopbackServer;
using Lirra::LocalFile;
using Lirra::URL;
using Lirra::URLFile;
using Lirra::URLHttp;
using Lirra::URLImpl;
namespace fs = std::filesystem;

namespace {

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeFile(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

std::string fetchError(const URL& url) {
    try {
        url.fetch();
    } catch (const URLImpl::Exception& e) {
        return e.what();
    }
    return "(no exception)";
}

// Gives each test an empty TMPDIR of its own, so downloads left behind are easy to spot.
class URLTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "url_test-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        _dir = pattern;
        const char* old = getenv("TMPDIR");
        _oldTmpdir = old ? std::optional<std::string>(old) : std::nullopt;
        setenv("TMPDIR", _dir.c_str(), 1);
        // A proxy from the environment must not take the loopback requests elsewhere.
        setenv("no_proxy", "*", 1);
    }
    void TearDown() override {
        URLHttp::_timeoutMs = 30000;
        if (_oldTmpdir) {
            setenv("TMPDIR", _oldTmpdir->c_str(), 1);
        } else {
            unsetenv("TMPDIR");
        }
        fs::remove_all(_dir);
    }
    bool tmpdirEmpty() const { return fs::is_empty(_dir); }

    std::string _dir;
    std::optional<std::string> _oldTmpdir;
};

}  // namespace

TEST(URLParse, CwdIsTheCurrentDirectory) {
    const URLImpl& cwd = URLFile::_cwd.impl();
    EXPECT_EQ(cwd.scheme(), "file");
    EXPECT_EQ(cwd.path(), (fs::current_path() / "").string());
    EXPECT_EQ(cwd.toString().rfind("file:///", 0), 0u);
    EXPECT_EQ(URL::currentDirectory().toString(), cwd.toString());
}

TEST(URLParse, RelativeTextResolvesAgainstCwd) {
    const URL url("sound.wav");
    EXPECT_EQ(url.toString(), URLFile::_cwd.toString() + "sound.wav");
    EXPECT_EQ(url.impl().path(), URLFile::_cwd.impl().path() + "sound.wav");
    EXPECT_EQ(url.impl().host(), "");
    EXPECT_NE(dynamic_cast<const URLFile*>(&url.impl()), nullptr);
    // A ':' after the first '/' is no scheme; "./" makes one in the first segment harmless.
    EXPECT_EQ(URL("dir/a:b.wav").toString(), URLFile::_cwd.toString() + "dir/a:b.wav");
    EXPECT_EQ(URL("./1ab:x").toString(), URLFile::_cwd.toString() + "1ab:x");
}

TEST(URLParse, DotSegmentsAreResolved) {
    const URL base("file:///srv/sounds/");
    EXPECT_EQ(URL("../x.wav", base).toString(), "file:///srv/x.wav");
    EXPECT_EQ(URL("a/./../b.wav", base).impl().path(), "/srv/sounds/b.wav");
}

TEST(URLParse, SpacesAreEscapedAndEscapesDecoded) {
    const URL spaced("/tmp/a b.wav");
    EXPECT_EQ(spaced.toString(), "file:///tmp/a%20b.wav");
    EXPECT_EQ(spaced.impl().path(), "/tmp/a b.wav");
    EXPECT_EQ(URL("file:///tmp/%41%20b%C3%BC.wav").impl().path(), "/tmp/A b\xC3\xBC.wav");
}

TEST(URLParse, HttpUrl) {
    const URL url("HTTP://example.com:8080/dir/a.wav?x=1");
    EXPECT_EQ(url.toString(), "http://example.com:8080/dir/a.wav?x=1");
    EXPECT_EQ(url.impl().scheme(), "http");
    EXPECT_EQ(url.impl().host(), "example.com");
    EXPECT_EQ(url.impl().path(), "/dir/a.wav");
    EXPECT_NE(dynamic_cast<const URLHttp*>(&url.impl()), nullptr);
    EXPECT_NE(dynamic_cast<const URLHttp*>(&URL("https://example.com/").impl()), nullptr);
}

TEST(URLParse, RelativeTextResolvesAgainstHttpBase) {
    const URL base("http://example.com/sounds/a.wav");
    EXPECT_EQ(URL("b.wav", base).toString(), "http://example.com/sounds/b.wav");
    EXPECT_EQ(URL("/c.wav", base).toString(), "http://example.com/c.wav");
    const URL file("file:///tmp/d.wav", base);
    EXPECT_EQ(file.toString(), "file:///tmp/d.wav");
    EXPECT_NE(dynamic_cast<const URLFile*>(&file.impl()), nullptr);
}

TEST(URLParse, OtherSchemesParseButCannotFetch) {
    const URL url("FTP://example.com/a.wav");
    EXPECT_EQ(url.impl().scheme(), "ftp");
    EXPECT_EQ(dynamic_cast<const URLFile*>(&url.impl()), nullptr);
    EXPECT_EQ(dynamic_cast<const URLHttp*>(&url.impl()), nullptr);
    EXPECT_EQ(fetchError(url), "Cannot fetch ftp://example.com/a.wav: unsupported scheme");
}

TEST(URLParse, RejectsWhatIsNotAUrl) {
    for (const char* text :
         {"", "1ab:x", ":foo", "a_b:x", "http://", "http:", "https://", "%", "a%2", "a%zz.wav",
          "file:///a%g0", "http://h/a#%", "file://otherhost/x", "http://bad host/x"}) {
        SCOPED_TRACE(text);
        try {
            URL url(text);
            ADD_FAILURE() << "parsed as " << url.toString();
        } catch (const URLImpl::Exception& e) {
            EXPECT_STREQ(e.what(), "Cannot parse URL");
        }
    }
}

TEST(URLParse, NullBaseNeedsAbsoluteText) {
    EXPECT_THROW(URLImpl::create("sound.wav", nullptr), URLImpl::Exception);
    EXPECT_THROW(URLImpl::create("/tmp/sound.wav", nullptr), URLImpl::Exception);
    EXPECT_EQ(URLImpl::create("file:///tmp/s.wav", nullptr)->path(), "/tmp/s.wav");
}

TEST_F(URLTest, FileFetchIsTheFileItself) {
    const std::string path = _dir + "/a b.wav";
    writeFile(path, "RIFF");
    {
        const LocalFile local = URL(path).fetch();
        EXPECT_EQ(local.path(), path);
        EXPECT_FALSE(local.temporary());
    }
    EXPECT_EQ(readFile(path), "RIFF");
}

TEST_F(URLTest, FileFetchOfMissingFileOrDirectoryThrows) {
    const URL missing(_dir + "/missing.wav");
    EXPECT_EQ(fetchError(missing), "Cannot fetch " + missing.toString() + ": no such file");
    EXPECT_EQ(fetchError(URL(_dir + "/")),
              "Cannot fetch " + URL(_dir + "/").toString() + ": no such file");
}

TEST_F(URLTest, OnlyATemporaryLocalFileIsRemoved) {
    const std::string kept = _dir + "/kept", moved = _dir + "/moved", replaced = _dir + "/old";
    for (const std::string& path : {kept, moved, replaced}) {
        writeFile(path, "x");
    }
    { LocalFile local(kept, false); }
    EXPECT_TRUE(fs::exists(kept));
    {
        LocalFile first(moved, true);
        LocalFile second(std::move(first));
        { LocalFile gone(std::move(second)); }
        EXPECT_FALSE(fs::exists(moved));
        LocalFile target(replaced, true);
        target = LocalFile(kept, false);
        EXPECT_FALSE(fs::exists(replaced));
    }
    EXPECT_TRUE(fs::exists(kept));
}

TEST_F(URLTest, HttpFetchDownloadsToATemporaryFile) {
    const std::string body("RIFF\0\r\n\r\nbytes", 15);
    LoopbackServer server("HTTP/1.1 200 OK\r\nContent-Length: 15\r\nConnection: close\r\n\r\n" +
                          body);
    std::string path;
    {
        const LocalFile local = URL(server.url("/sounds/a b.wav")).fetch();
        path = local.path();
        EXPECT_TRUE(local.temporary());
        EXPECT_EQ(fs::path(path).parent_path(), fs::path(_dir));
        EXPECT_EQ(fs::path(path).filename().string().rfind("KeloURL-", 0), 0u);
        EXPECT_EQ(readFile(path), body);
    }
    EXPECT_FALSE(fs::exists(path));
    EXPECT_EQ(server.stop().rfind("GET /sounds/a%20b.wav HTTP/1.1\r\n", 0), 0u);
}

TEST_F(URLTest, HttpErrorStatusThrowsAndLeavesNoFile) {
    LoopbackServer server(
        "HTTP/1.1 404 Not Found\r\nContent-Length: 4\r\nConnection: close\r\n\r\nnope");
    const URL url(server.url("/missing.wav"));
    EXPECT_EQ(fetchError(url), "Cannot fetch " + url.toString() + ": HTTP 404");
    EXPECT_TRUE(tmpdirEmpty());
}

TEST_F(URLTest, SilentServerTimesOut) {
    LoopbackServer server("");
    URLHttp::_timeoutMs = 300;
    const auto start = std::chrono::steady_clock::now();
    const std::string error = fetchError(URL(server.url("/slow.wav")));
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(error.rfind("Cannot fetch http://127.0.0.1:", 0), 0u) << error;
    EXPECT_GE(elapsed, std::chrono::milliseconds(250));
    EXPECT_LT(elapsed, std::chrono::milliseconds(1500));
    EXPECT_TRUE(tmpdirEmpty());
}

TEST_F(URLTest, UnusableTmpdirThrows) {
    LoopbackServer server("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
    setenv("TMPDIR", (_dir + "/missing").c_str(), 1);
    const std::string error = fetchError(URL(server.url("/a.wav")));
    EXPECT_NE(error.find("cannot create a temporary file"), std::string::npos) << error;
}

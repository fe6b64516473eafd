#include "tools/vorn/serve/static_files.h"

#include "tests/support/temp_dir.h"
#include "tools/vorn/exit_code.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>

using namespace vorn_cli;

namespace {

using Parts = std::vector<std::string>;

TEST(StaticPath, NamesFoldersAndAFile) {
    EXPECT_EQ(static_path("/"), Parts{"index.html"});
    EXPECT_EQ(static_path("/app.js"), Parts{"app.js"});
    EXPECT_EQ(static_path("/a/b-c_d/app.min.js"), (Parts{"a", "b-c_d", "app.min.js"}));
}

TEST(StaticPath, RefusesWhatCouldLeadElsewhere) {
    const std::string paths[] = {
        "",
        "app.js",
        "/../app.js",
        "/a/../b.js",
        "/..",
        "/.",
        "/./a.js",
        "//a.js",
        "/a//b.js",
        "/a/",
        "/.hid",
        "/a\\b",
        "/a%2e",
        std::string("/a\0b", 4),
        "/a b",
        "/a:b.js",
        "/~a.js",
        "/\xc3\xa4",
        "/" + std::string(255, 'a'),
    };
    for (const std::string& path : paths) {
        EXPECT_EQ(static_path(path), std::nullopt) << path;
    }
}

TEST(ContentType, GoesByTheSuffix) {
    EXPECT_STREQ(content_type_of("index.html"), "text/html; charset=utf-8");
    EXPECT_STREQ(content_type_of("a.js"), "text/javascript; charset=utf-8");
    EXPECT_EQ(content_type_of("a.sh"), nullptr);
    EXPECT_EQ(content_type_of("html"), nullptr);
}

class FilesOfAPage : public testing::Test {
protected:
    FilesOfAPage() {
        namespace fs = std::filesystem;
        fs::create_directories(web() / "sub");
        directory_.write("web/index.html", "<!doctype html>");
        directory_.write("web/sub/a.js", "1");
        directory_.write("web/key.pem", "not for the world");
        directory_.write("secret.html", "secret");
        fs::create_symlink(directory_.path() / "secret.html", web() / "link.html");
        fs::create_symlink(directory_.path(), web() / "up");
        fs::create_symlink("index.html", web() / "inside.html");
        ::mkfifo((web() / "pipe.html").c_str(), 0600);
        fs::create_directory(web() / "folder.html");
    }
    std::filesystem::path web() const { return directory_.path() / "web"; }

    support::TempDir directory_;
};

TEST_F(FilesOfAPage, AreRead) {
    const StaticFiles files(web());
    const auto index = files.read("/");
    ASSERT_TRUE(index);
    EXPECT_EQ(index->content, "<!doctype html>");
    EXPECT_STREQ(index->content_type, "text/html; charset=utf-8");
    ASSERT_TRUE(files.read("/sub/a.js"));
    EXPECT_EQ(files.read("/sub/a.js")->content, "1");
}

TEST_F(FilesOfAPage, HaveATagThatChangesWithThem) {
    const StaticFiles files(web());
    const std::string before = files.read("/")->etag;
    EXPECT_EQ(files.read("/")->etag, before);
    directory_.write("web/index.html", "<!doctype htmL>");
    EXPECT_NE(files.read("/")->etag, before);
}

TEST_F(FilesOfAPage, DoNotLeadOut) {
    const StaticFiles files(web());
    for (const char* path :
         {"/link.html", "/up/secret.html", "/inside.html", "/../secret.html", "/pipe.html",
          "/folder.html", "/sub", "/key.pem", "/missing.html", "/index.html/a.js"}) {
        EXPECT_FALSE(files.read(path)) << path;
    }
}

TEST_F(FilesOfAPage, NeedAFolder) {
    EXPECT_THROW(StaticFiles(directory_.path() / "missing"), Failure);
    EXPECT_THROW(StaticFiles(directory_.path() / "secret.html"), Failure);
}

} // namespace

// Paths that are split into directory, name and extension.

#include <VXC_File.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <ostream>
#include <string>

struct TPath {
    const char* path;
    const char* directory;
    const char* name;
    const char* extension;  // null: left untouched
};
void PrintTo(const TPath& path, std::ostream* out) {
    *out << '"' << path.path << '"';
}

class Paths : public testing::TestWithParam<TPath> {};

TEST_P(Paths, AreSplit) {
    const TPath& path = GetParam();
    std::string directory(std::strlen(path.path) + 1, '#');
    std::array<char, VXC_File::cNameCapacity> name;
    std::array<char, VXC_File::cExtensionCapacity> extension;
    std::strcpy(extension.data(), "untouched");
    VXC_File::VXC_StripPathUrl(path.path, directory.data(), name.data(), extension.data());
    EXPECT_STREQ(directory.c_str(), path.directory);
    EXPECT_STREQ(name.data(), path.name);
    EXPECT_STREQ(extension.data(), path.extension == nullptr ? "untouched" : path.extension);
    VXC_File::VXC_StripPathUrl(path.path, nullptr, nullptr, nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    Split, Paths,
    testing::Values(
        TPath{"/opt/tools/report.exe", "/opt/tools/", "report", ".exe"},
        TPath{"report.exe", "", "report", ".exe"}, TPath{"report", "", "report", nullptr},
        TPath{"C:\\tools\\report.EXE", "C:\\tools\\", "report", ".EXE"},
        TPath{"a\\b/c.d", "a\\b/", "c", ".d"}, TPath{"a/b\\c.d", "a/b\\", "c", ".d"},
        TPath{"a.tar.gz", "", "a.tar", ".gz"}, TPath{".profile", "", ".profile", nullptr},
        TPath{".profile.exe", "", ".profile", ".exe"}, TPath{"..exe", "", ".", ".exe"},
        TPath{"file.", "", "file.", nullptr}, TPath{"file.exe.", "", "file.exe.", nullptr},
        TPath{"..", "", "..", nullptr}, TPath{".", "", ".", nullptr}, TPath{"", "", "", nullptr},
        TPath{"/", "/", "", nullptr}, TPath{"/a.b/c", "/a.b/", "c", nullptr},
        TPath{"a.b\\c", "a.b\\", "c", nullptr}, TPath{"/a/b.c/", "/a/b.c/", "", nullptr},
        TPath{"http://host/a/page.html", "http://host/a/", "page", ".html"},
        TPath{"a b. c", "", "a b", ". c"}));

TEST(PathCapacity, NothingIsWrittenBeyondItHoweverLongThePath) {
    for (const std::size_t length : {126U, 127U, 128U, 254U, 255U, 256U, 257U, 1000U, 100'000U}) {
        const std::string path = "/" + std::string(length, 'n') + "." + std::string(length, 'e');
        std::array<char, 300> name;
        std::array<char, 300> extension;
        name.fill('#');
        extension.fill('#');
        VXC_File::VXC_StripPathUrl(path.c_str(), nullptr, name.data(), extension.data());
        EXPECT_EQ(name.data(), std::string(std::min<std::size_t>(length, 255), 'n'));
        EXPECT_EQ(extension.data(), "." + std::string(std::min<std::size_t>(length, 126), 'e'));
        EXPECT_EQ(std::string(name.data() + 256, 44), std::string(44, '#'));
        EXPECT_EQ(std::string(extension.data() + 128, 172), std::string(172, '#'));
    }
}

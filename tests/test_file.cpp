// Files and directories: sizes and status against the platform, recursive
// directory creation, path resolution, file copy and directory listings.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "qosa_file.h"

namespace {

// A fresh directory under /tmp, removed with everything in it at the end.
struct TempDir {
    char tmpl[22] = "/tmp/qosa_file_XXXXXX";
    std::string path = mkdtemp(tmpl) != nullptr ? tmpl : "/nonexistent";
    ~TempDir() { std::filesystem::remove_all(path); }
    std::string operator/(const std::string& name) const { return path + "/" + name; }
};

bool is_dir(const std::string& p) { return QOSA_Access((p + "/.").c_str(), F_OK) == 0; }

void write_file(const std::string& p, const std::string& content) {
    FILE* f = QOSA_Fopen(p.c_str(), "w");
    ASSERT_NE(f, nullptr) << p;
    EXPECT_EQ(QOSA_Fwrite(content.data(), 1, static_cast<u32>(content.size()), f), content.size());
    QOSA_Fclose(f);
}

std::string read_file(const std::string& p) {
    FILE* f = QOSA_Fopen(p.c_str(), "r");
    if (f == nullptr) return "<missing>";
    std::string out(8192, '\0');
    out.resize(QOSA_Fread(out.data(), 1, static_cast<u32>(out.size()), f));
    QOSA_Fclose(f);
    return out;
}

} // namespace

TEST(FileSize, SparseFilesAroundTheLargest32BitSize) {
    TempDir dir;
    std::string f = dir / "sparse";
    write_file(f, "12345");
    u32 size = 7;
    EXPECT_EQ(QOSA_GetFileSize(f.c_str(), &size), 0u);
    EXPECT_EQ(size, 5u);
    if (truncate(f.c_str(), 4294967294LL) != 0) GTEST_SKIP() << "no sparse files here: " << std::strerror(errno);
    EXPECT_EQ(QOSA_GetFileSize(f.c_str(), &size), 0u);
    EXPECT_EQ(size, 4294967294u);
    for (long long big : {4294967295LL, 0x100000005LL}) {
        ASSERT_EQ(truncate(f.c_str(), big), 0);
        size = 7;
        EXPECT_EQ(QOSA_GetFileSize(f.c_str(), &size), 1u) << big;
        EXPECT_EQ(size, 7u) << "left alone";
    }
    EXPECT_EQ(QOSA_GetFileSize((dir / "missing").c_str(), &size), 1u);
}

TEST(FileStatus, MatchesThePlatformRecordAndKeepsItOnFailure) {
    TempDir dir;
    std::string f = dir / "status";
    write_file(f, std::string(1234, 'x'));
    const struct timespec times[2] = {{1000000001, 999999999}, {1600000000, 500000000}};
    ASSERT_EQ(utimensat(AT_FDCWD, f.c_str(), times, 0), 0);
    struct stat ref;
    ASSERT_EQ(stat(f.c_str(), &ref), 0);
    QOSA_STAT_S st, byFd;
    std::memset(&st, 0xA5, sizeof st);
    std::memset(&byFd, 0x5A, sizeof byFd);
    int fd = QOSA_Open(f.c_str(), O_RDONLY, 0);
    ASSERT_EQ(QOSA_Stat(f.c_str(), &st), 0u);
    ASSERT_EQ(QOSA_FStat(fd, &byFd), 0u);
    QOSA_Close(fd);
    // Whole seconds only, every field.
    const QOSA_STAT_S expect = {s64(ref.st_dev), ref.st_ino, ref.st_mode, 1,          ref.st_uid,
                                ref.st_gid,      1234,       1000000001,  1600000000, ref.st_ctime};
    EXPECT_EQ(QOSA_Stat((dir / "missing").c_str(), &st), 0xFFFFFFFFu);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(QOSA_FStat(fd, &byFd), 0xFFFFFFFFu) << "closed descriptor";
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(std::memcmp(&st, &expect, sizeof st), 0);
    EXPECT_EQ(std::memcmp(&byFd, &expect, sizeof st), 0);
}

TEST(MkDirP, CreatesEveryLevel) {
    TempDir dir;
    char old[PATH_MAX];
    ASSERT_NE(QOSA_GetCwd(old, sizeof old), nullptr);
    ASSERT_EQ(QOSA_ChDir(dir.path.c_str()), 0);
    for (const char* path : {"a/b/c", "ab/c/", "x\\y", "logs", "\\rel\\sub", "a/b/c", ".", ".."})
        EXPECT_EQ(QOSA_MkDir_P(path, 0755), 0) << path;
    for (const char* made : {"a", "a/b", "a/b/c", "ab/c", "x/y", "logs", "rel/sub"})
        EXPECT_TRUE(is_dir(made)) << made;
    write_file("plain", "not a directory");
    EXPECT_EQ(QOSA_MkDir_P("plain/sub/deeper", 0755), 0) << "levels that cannot be made change nothing";
    EXPECT_FALSE(is_dir("plain/sub"));
    ASSERT_EQ(QOSA_ChDir(old), 0);

    EXPECT_EQ(QOSA_MkDir_P((dir.path + "//d1///d2/").c_str(), 0700), 0);
    struct stat s;
    ASSERT_EQ(stat((dir / "d1/d2").c_str(), &s), 0);
    EXPECT_EQ(s.st_mode & 0777, 0700u);
}

TEST(RelPath, ResolvesAndNeedsRoomForTheTerminator) {
    TempDir dir;
    ASSERT_EQ(QOSA_MkDir_P((dir / "real/sub").c_str(), 0755), 0);
    ASSERT_EQ(symlink((dir / "real").c_str(), (dir / "link").c_str()), 0);
    std::string input = dir / "link/sub/../sub/.";
    char expect[PATH_MAX], out[PATH_MAX + 8];
    ASSERT_NE(realpath((dir / "real/sub").c_str(), expect), nullptr);
    const s32 len = static_cast<s32>(std::strlen(expect));
    EXPECT_EQ(QOSA_RelPath(input.c_str(), out, len + 1), 0);
    EXPECT_STREQ(out, expect);
    EXPECT_EQ(QOSA_RelPath(input.c_str(), out, len), 1) << "no room for the terminator";
    EXPECT_EQ(QOSA_RelPath(input.c_str(), out, -1), 1);
    EXPECT_EQ(QOSA_RelPath((dir / "missing").c_str(), out, sizeof out), 1);
}

TEST(CopyFile, CopiesWholeFilesAndReportsEveryFailure) {
    TempDir dir;
    std::string src = dir / "src", dst = dir / "dst", content;
    for (int i = 0; i < 3 * 512 + 17; ++i)
        content += static_cast<char>(i * 7 + 3);
    write_file(src, content);
    write_file(dst, std::string(5000, 'z'));
    EXPECT_EQ(QOSA_CopyFile(src.c_str(), dst.c_str()), 0);
    EXPECT_EQ(read_file(dst), content) << "a longer destination is cut to the source's length";
    write_file(dir / "empty", "");
    EXPECT_EQ(QOSA_CopyFile((dir / "empty").c_str(), dst.c_str()), 0);
    EXPECT_EQ(read_file(dst), "");
    EXPECT_EQ(QOSA_CopyFile(src.c_str(), src.c_str()), 0) << "onto itself";
    EXPECT_EQ(read_file(src), content);
    EXPECT_EQ(QOSA_CopyFile((dir / "missing").c_str(), (dir / "never").c_str()), -1);
    EXPECT_EQ(read_file(dir / "never"), "<missing>");
    // A directory opens but cannot be read; a full device takes no bytes.
    EXPECT_EQ(QOSA_CopyFile(dir.path.c_str(), (dir / "from-dir").c_str()), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_TRUE(QOSA_Access("/dev/full", W_OK) != 0 || QOSA_CopyFile(src.c_str(), "/dev/full") == -1);
}

TEST(Listing, ScanSortAndRelease) {
    TempDir dir;
    for (const char* name : {"file10", "file2", "File1", "file1"})
        write_file(dir / name, "");
    auto no_dots = [](const struct dirent* e) { return e->d_name[0] != '.' ? 1 : 0; };
    struct dirent** list = nullptr;
    int n = QOSA_ScanDir(dir.path.c_str(), &list, no_dots, QOSA_Versionsort);
    ASSERT_EQ(n, 4);
    std::string names;
    for (int i = 0; i < n; ++i)
        names += std::string(list[i]->d_name) + " ";
    EXPECT_EQ(names, "File1 file1 file2 file10 ") << "numbers in numeric order";
    QOSA_DestoryNameList(list, static_cast<u32>(n));
    // An empty listing still has its list to release (the leak checker sees it).
    n = QOSA_ScanDir(
        dir.path.c_str(), &list, [](const struct dirent*) { return 0; }, QOSA_Alphasort);
    ASSERT_EQ(n, 0);
    QOSA_DestoryNameList(list, 0);
}

// Files and directories: 32-bit sizes, the status record, recursive directory
// creation, file copy and listings. (Path resolution against realpath and the
// version sort against versionsort are properties of fuzz/fuzz_parsers.cpp.)

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <filesystem>

#include "support.h"

namespace fs = std::filesystem;

namespace {

// A fresh directory under /tmp, removed with everything in it at the end.
struct TempDir {
    char tmpl[22] = "/tmp/qosa_file_XXXXXX";
    std::string path = mkdtemp(tmpl) != nullptr ? tmpl : "/nonexistent";
    ~TempDir() { fs::remove_all(path); }
    std::string operator/(const std::string& name) const { return path + "/" + name; }
};

// Written through the library's streams, read back with the standard library's.
void write_file(const std::string& p, const std::string& content) {
    FILE* f = QOSA_Fopen(p.c_str(), "w");
    ASSERT_NE(f, nullptr) << p;
    EXPECT_EQ(QOSA_Fwrite(content.data(), 1, static_cast<u32>(content.size()), f), content.size());
    EXPECT_EQ(QOSA_Fclose(f), 0);
}
} // namespace

TEST(QOSA_GetFileSize, ToldUpToTheLargest32BitSizeAndLeftAloneBeyond) {
    TempDir dir;
    const std::string f = dir / "sparse";
    write_file(f, "12345");
    u32 size = 7;
    EXPECT_EQ(QOSA_GetFileSize((dir / "missing").c_str(), &size), 1u);
    EXPECT_TRUE(QOSA_GetFileSize(f.c_str(), &size) == 0 && size == 5) << size;
    if (truncate(f.c_str(), 4294967294LL) != 0) GTEST_SKIP() << "no sparse files here";
    EXPECT_TRUE(QOSA_GetFileSize(f.c_str(), &size) == 0 && size == 4294967294u) << size;
    for (long long big : {4294967295LL, 0x100000005LL}) {
        ASSERT_EQ(truncate(f.c_str(), big), 0);
        size = 7;
        EXPECT_TRUE(QOSA_GetFileSize(f.c_str(), &size) == 1 && size == 7) << big << ": " << size;
    }
}

TEST(QOSA_Stat, AndFStatFillEveryFieldInWholeSecondsOrNothing) {
    TempDir dir;
    const std::string f = dir / "status";
    write_file(f, std::string(1234, 'x'));
    const struct timespec times[2] = {{1000000001, 999999999}, {1600000000, 500000000}};
    struct stat ref;
    ASSERT_EQ(utimensat(AT_FDCWD, f.c_str(), times, 0) | stat(f.c_str(), &ref), 0);
    const QOSA_STAT_S expect = {s64(ref.st_dev), ref.st_ino, ref.st_mode, 1,          ref.st_uid,
                                ref.st_gid,      1234,       1000000001,  1600000000, ref.st_ctime};
    QOSA_STAT_S st, byFd; // filled with garbage, so a field left out shows
    std::memset(&st, 0xA5, sizeof st);
    std::memset(&byFd, 0x5A, sizeof byFd);
    const int fd = QOSA_Open(f.c_str(), O_RDONLY, 0);
    ASSERT_EQ(QOSA_Stat(f.c_str(), &st) | QOSA_FStat(fd, &byFd), 0u);
    QOSA_Close(fd);
    EXPECT_TRUE(std::memcmp(&st, &expect, sizeof st) == 0 && std::memcmp(&byFd, &expect, sizeof st) == 0);
    EXPECT_TRUE(QOSA_Stat((dir / "missing").c_str(), &st) == 0xFFFFFFFFu && errno == ENOENT);
    EXPECT_TRUE(QOSA_FStat(fd, &byFd) == 0xFFFFFFFFu && errno == EBADF) << "closed descriptor";
}

TEST(QOSA_MkDir_P, CreatesEveryLevelWhateverTheSeparators) {
    TempDir dir;
    char old[PATH_MAX];
    ASSERT_NE(QOSA_GetCwd(old, sizeof old), nullptr);
    ASSERT_EQ(QOSA_ChDir(dir.path.c_str()), 0); // relative paths here: an absolute one is the fault sweep's
    for (const char* path : {"a/b/c", "ab//c/", "x\\y", "logs", "\\rel\\sub", "a/b/c", ".", ".."})
        EXPECT_EQ(QOSA_MkDir_P(path, 0700), 0) << path;
    for (const char* made : {"a", "a/b", "a/b/c", "ab/c", "x/y", "logs", "rel/sub"})
        EXPECT_TRUE(fs::is_directory(made)) << made;
    EXPECT_EQ(fs::status("ab/c").permissions(), fs::perms::owner_all);
    write_file("plain", "not a directory");
    EXPECT_EQ(QOSA_MkDir_P("plain/sub/deeper", 0755), 0) << "levels that cannot be made change nothing";
    EXPECT_FALSE(fs::exists("plain/sub"));
    ASSERT_EQ(QOSA_ChDir(old), 0);
}

TEST(QOSA_CopyFile, CopiesWholeFilesAndReportsEveryFailure) {
    TempDir dir;
    const std::string src = dir / "src", dst = dir / "dst";
    std::string content; // three chunks and a bit, no two alike
    for (int i = 0; i < 3 * 512 + 17; ++i)
        content += static_cast<char>(i * 7 + 3);
    write_file(src, content);
    write_file(dir / "empty", "");
    write_file(dst, std::string(5000, 'z')); // a longer destination is cut to the source's length
    // Then onto itself, then an empty source.
    const std::string copies[][3] = {{src, dst, content}, {src, src, content}, {dir / "empty", dst, ""}};
    for (const auto& [from, to, result] : copies)
        EXPECT_TRUE(QOSA_CopyFile(from.c_str(), to.c_str()) == 0 && qosa_test::slurp(to) == result) << from << to;
    EXPECT_EQ(QOSA_CopyFile((dir / "missing").c_str(), (dir / "never").c_str()), -1);
    EXPECT_FALSE(fs::exists(dir / "never"));
    // A directory opens but cannot be read; a full device takes no bytes.
    EXPECT_TRUE(QOSA_CopyFile(dir.path.c_str(), (dir / "from-dir").c_str()) == -1 && errno == EISDIR);
    EXPECT_TRUE(QOSA_Access("/dev/full", W_OK) != 0 || QOSA_CopyFile(src.c_str(), "/dev/full") == -1);
}

TEST(FileDescriptors, OffsetsAndLengthsKeepTheirSign) {
    FILE* f = QOSA_TmpFile();
    ASSERT_NE(f, nullptr);
    const int fd = dup(fileno(f));
    std::fclose(f);
    EXPECT_TRUE(QOSA_Ftruncate(fd, 10) == 0 && QOSA_LSeek(fd, -4, SEEK_END) == 6);
    int pending = 0;
    EXPECT_TRUE(QOSA_Ioctl(fd, FIONREAD, &pending) == 0 && pending == 4) << pending;
    EXPECT_TRUE(QOSA_Ftruncate(fd, -1) == -1 && errno == EINVAL) << "not 4 GiB";
    EXPECT_TRUE(QOSA_CloseHandle(fd) == 0 && QOSA_CloseHandle(fd) == -1);
}

TEST(QOSA_ScanDir, FilteredInVersionOrderAndEveryListReleased) {
    TempDir dir;
    for (const char* name : {"file10", "file2", "File1", "file1"})
        write_file(dir / name, "");
    struct dirent** list = nullptr;
    int n = QOSA_ScanDir(
        dir.path.c_str(), &list, [](const struct dirent* e) { return e->d_name[0] != '.' ? 1 : 0; }, QOSA_Versionsort);
    ASSERT_EQ(n, 4);
    EXPECT_TRUE(std::strcmp(list[2]->d_name, "file2") == 0 && std::strcmp(list[3]->d_name, "file10") == 0);
    QOSA_DestoryNameList(list, static_cast<u32>(n));
    auto none = [](const struct dirent*) { return 0; };
    ASSERT_EQ(QOSA_ScanDir(dir.path.c_str(), &list, none, QOSA_Alphasort), 0) << "still a list to release";
    QOSA_DestoryNameList(list, 0);
}

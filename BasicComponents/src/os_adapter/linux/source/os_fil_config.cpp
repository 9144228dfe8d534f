// Files and directories: the pass-through wrappers over directory streams,
// buffered streams and descriptors, file status, and the path utilities.
#define QOSA_UNIT_NAME "os_fil_config.c"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "internal/common.h"
#include "qosa_file.h"
#include "qosa_mem.h"
#include "qosa_string.h"

// =============================================================================
// File and directory operations
// =============================================================================

static_assert(sizeof(QOSA_STAT_S) == 72, "file status record layout");
static_assert(offsetof(QOSA_STAT_S, ino) == 8 && offsetof(QOSA_STAT_S, mode) == 16 &&
              offsetof(QOSA_STAT_S, nlink) == 20 && offsetof(QOSA_STAT_S, uid) == 24 &&
              offsetof(QOSA_STAT_S, gid) == 32 && offsetof(QOSA_STAT_S, size) == 40 &&
              offsetof(QOSA_STAT_S, atime) == 48 && offsetof(QOSA_STAT_S, mtime) == 56 &&
              offsetof(QOSA_STAT_S, ctime) == 64);

namespace {

// mkdir and creat take only the low 16 bits of the caller's mode.
constexpr mode_t mode16(u32 mode) { return static_cast<mode_t>(mode & 0xFFFFu); }

// The platform's status record in the library's layout. Cleared first so
// that nothing of an earlier use survives.
u32 fill_stat(const struct stat& s, QOSA_STAT_S* out) {
    memset_s(out, sizeof *out, 0, sizeof *out);
    out->dev = static_cast<s64>(s.st_dev);
    out->ino = static_cast<u64>(s.st_ino);
    out->mode = static_cast<u32>(s.st_mode);
    out->nlink = static_cast<u32>(s.st_nlink);
    out->uid = static_cast<u64>(s.st_uid);
    out->gid = static_cast<u64>(s.st_gid);
    out->size = static_cast<s64>(s.st_size);
    out->atime = static_cast<s64>(s.st_atime);
    out->mtime = static_cast<s64>(s.st_mtime);
    out->ctime = static_cast<s64>(s.st_ctime);
    return 0;
}

u32 stat_into(const char* path, QOSA_STAT_S* out) {
    struct stat s;
    int r = stat(path, &s);
    return r != 0 ? static_cast<u32>(r) : fill_stat(s, out);
}

u32 fstat_into(int fd, QOSA_STAT_S* out) {
    struct stat s;
    int r = fstat(fd, &s);
    return r != 0 ? static_cast<u32>(r) : fill_stat(s, out);
}

// The entry comparisons of a listing: a missing first entry sorts first, then
// a missing second one sorts it after the first.
template <int (*Compare)(const struct dirent**, const struct dirent**)>
int compare_entries(const struct dirent** a, const struct dirent** b) {
    if (a == nullptr || *a == nullptr) return -1;
    if (b == nullptr || *b == nullptr) return 1;
    return Compare(a, b);
}

// readdir_r is marked deprecated by the C library; it is still the only
// reentrant form of the call that writes into the caller's entry.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
int read_dir_into(DIR* dir, struct dirent* entry, struct dirent** result) { return readdir_r(dir, entry, result); }
#pragma GCC diagnostic pop

// fgets counts in int: a larger buffer is simply used up to INT_MAX bytes.
int fgets_size(u32 size) { return size > static_cast<u32>(INT_MAX) ? INT_MAX : static_cast<int>(size); }

} // namespace

// The wrappers are kept one per line: the formatter would split every call
// that has a lambda before its last argument.
// clang-format off
extern "C" {

// ---- directories and the working directory ----

DIR* QOSA_OpenDir(const char* path) { return guarded<DIR*>(nullptr, [=] { return opendir(path); }, path); }
int QOSA_CloseDir(DIR* dir) { return guarded(-1, [=] { return closedir(dir); }, dir); }
struct dirent* QOSA_ReadDir(DIR* dir) { return guarded<struct dirent*>(nullptr, [=] { return readdir(dir); }, dir); }
int QOSA_ReadDir_S(DIR* dir, struct dirent* entry, struct dirent** result) {
    return guarded(-1, [=] { return read_dir_into(dir, entry, result); }, dir, entry, result);
}
int QOSA_DirFd(DIR* dir) { return guarded(-1, [=] { return dirfd(dir); }, dir); }
void QOSA_RewindDir(DIR* dir) { guarded(nothing, [=] { rewinddir(dir); }, dir); }
void QOSA_SeekDir(DIR* dir, s32 pos) { guarded(nothing, [=] { seekdir(dir, long{pos}); }, dir); }
s32 QOSA_TellDir(DIR* dir) { return guarded<s32>(-1, [=] { return telldir(dir); }, dir); }

int QOSA_ScanDir(const char* path, struct dirent*** list, QOSA_DirFilter filter, QOSA_DirCompare compare) {
    return guarded(-1, [=] { return scandir(path, list, filter, compare); }, path, list);
}
int QOSA_Alphasort(const struct dirent** a, const struct dirent** b) { return compare_entries<alphasort>(a, b); }
int QOSA_Versionsort(const struct dirent** a, const struct dirent** b) { return compare_entries<versionsort>(a, b); }

char* QOSA_GetCwd(char* buf, s32 size) {
    // A negative size becomes 0, which the platform refuses with EINVAL.
    return guarded<char*>(nullptr, [=] { return getcwd(buf, size > 0 ? static_cast<size_t>(size) : 0); }, buf);
}
int QOSA_ChDir(const char* path) { return guarded(-1, [=] { return chdir(path); }, as_path(path)); }
int QOSA_RmDir(const char* path) { return guarded(-1, [=] { return rmdir(path); }, as_path(path)); }
int QOSA_MkDir(const char* path, u32 mode) {
    return guarded(-1, [=] { return mkdir(path, mode16(mode)); }, as_path(path));
}
int QOSA_Access(const char* path, u32 mode) {
    return guarded(-1, [=] { return access(path, static_cast<int>(mode)); }, as_path(path));
}
int QOSA_Remove(const char* path) { return guarded(-1, [=] { return remove(path); }, as_path(path)); }
int QOSA_Rename(const char* oldPath, const char* newPath) {
    return guarded(-1, [=] { return rename(oldPath, newPath); }, as_path(oldPath), as_path(newPath));
}

// ---- buffered streams ----

FILE* QOSA_Fopen(const char* path, const char* mode) {
    return guarded<FILE*>(nullptr, [=] { return fopen(path, mode); }, as_path(path), as_path(mode));
}
int QOSA_Fflush(FILE* stream) { return guarded(-1, [=] { return fflush(stream); }, stream); }
int QOSA_Fclose(FILE* stream) { return guarded(-1, [=] { return fclose(stream); }, stream); }
FILE* QOSA_TmpFile(void) { return tmpfile(); }

int QOSA_Fprintf(FILE* stream, const char* format, ...) {
    va_list args;
    va_start(args, format);
    int r = guarded(-1, [&] { return vfprintf(stream, format, args); }, stream, as_path(format));
    va_end(args);
    return r;
}

int QOSA_Printf(const char* format, ...) {
    va_list args;
    va_start(args, format);
    int r = guarded(-1, [&] { return vprintf(format, args); }, format);
    va_end(args);
    return r;
}

int QOSA_Fgetc(FILE* stream) { return guarded(-1, [=] { return fgetc(stream); }, stream); }
int QOSA_Fputc(int c, FILE* stream) { return guarded(-1, [=] { return fputc(c, stream); }, stream); }
char* QOSA_Fgets(char* buf, u32 size, FILE* stream) {
    return guarded<char*>(nullptr, [=] { return fgets(buf, fgets_size(size), stream); }, buf, stream);
}
int QOSA_Fputs(const char* s, FILE* stream) { return guarded(-1, [=] { return fputs(s, stream); }, s, stream); }
size_t QOSA_Fread(void* buf, u32 size, u32 count, FILE* stream) {
    return guarded<size_t>(0, [=] { return fread(buf, size, count, stream); }, buf, stream);
}
size_t QOSA_Fwrite(const void* buf, u32 size, u32 count, FILE* stream) {
    return guarded<size_t>(0, [=] { return fwrite(buf, size, count, stream); }, buf, stream);
}
int QOSA_Fseek(FILE* stream, s32 offset, int origin) {
    return guarded(-1, [=] { return fseek(stream, long{offset}, origin); }, stream);
}
s32 QOSA_Ftell(FILE* stream) { return guarded<s32>(-1, [=] { return ftell(stream); }, stream); }
void QOSA_Rewind(FILE* stream) { guarded(nothing, [=] { rewind(stream); }, stream); }
int QOSA_Fgetpos(FILE* stream, fpos_t* pos) { return guarded(-1, [=] { return fgetpos(stream, pos); }, stream, pos); }
int QOSA_Fsetpos(FILE* stream, const fpos_t* pos) {
    return guarded(-1, [=] { return fsetpos(stream, pos); }, stream, pos);
}
void QOSA_Clearerr(FILE* stream) { guarded(nothing, [=] { clearerr(stream); }, stream); }
int QOSA_Feof(FILE* stream) { return guarded(-1, [=] { return feof(stream); }, stream); }
int QOSA_Ferror(FILE* stream) { return guarded(-1, [=] { return ferror(stream); }, stream); }
int QOSA_Fileno(FILE* stream) { return guarded(-1, [=] { return fileno(stream); }, stream); }

// ---- file descriptors ----

int QOSA_Open(const char* path, int flags, u32 mode) {
    return guarded(-1, [=] { return open(path, flags, static_cast<mode_t>(mode)); }, as_path(path));
}
int QOSA_Creat(const char* path, u32 mode) {
    return guarded(-1, [=] { return creat(path, mode16(mode)); }, as_path(path));
}
s32 QOSA_Read(int fd, void* buf, u32 len) { return guarded<s32>(-1, [=] { return read(fd, buf, len); }, buf); }
s32 QOSA_Write(int fd, const void* buf, u32 len) { return guarded<s32>(-1, [=] { return write(fd, buf, len); }, buf); }
int QOSA_Close(int fd) { return close(fd); }
int QOSA_CloseHandle(int fd) { return close(fd); }
off_t QOSA_LSeek(int fd, s32 offset, int origin) { return lseek(fd, off_t{offset}, origin); }
int QOSA_Ftruncate(int fd, s32 length) { return ftruncate(fd, off_t{length}); }
int QOSA_Ioctl(int fd, s32 request, void* arg) {
    // The request is widened with its sign, as the platform's unsigned long.
    return ioctl(fd, static_cast<unsigned long>(long{request}), arg);
}
int QOSA_Fcntl(int fd, int cmd, long arg) { return fcntl(fd, cmd, arg); }

// ---- file size and status ----

u32 QOSA_GetFileSize(const char* path, u32* size) {
    if (size == nullptr || QOSA_StrLen(path) == 0) return QOSA_ERROR;
    struct stat s;
    if (stat(path, &s) != 0) return 1;
    // 0xFFFFFFFF itself is the failure value, so the largest size told is one below.
    if (s.st_size < 0 || static_cast<u64>(s.st_size) > 0xFFFFFFFEu) return 1;
    *size = static_cast<u32>(s.st_size);
    return 0;
}

u32 QOSA_Stat(const char* path, QOSA_STAT_S* st) {
    return guarded<u32>(QOSA_ERROR, [=] { return stat_into(path, st); }, path, st);
}
u32 QOSA_FStat(int fd, QOSA_STAT_S* st) { return guarded<u32>(QOSA_ERROR, [=] { return fstat_into(fd, st); }, st); }

} // extern "C"
// clang-format on

// =============================================================================
// Path utilities and the release of directory listings
// =============================================================================

namespace {

// Owns one block of the tracked allocator for the length of a call.
class TrackedBlock {
  public:
    explicit TrackedBlock(u32 size)
        : size_(size), p_(static_cast<char*>(QOSA_MemTypeMallocD(size, QOSA_MEM_DYN, QOSA_HERE))) {}
    ~TrackedBlock() {
        if (p_ != nullptr) QOSA_MemTypeFreeD(p_, QOSA_MEM_DYN, QOSA_HERE);
    }
    TrackedBlock(const TrackedBlock&) = delete;
    TrackedBlock& operator=(const TrackedBlock&) = delete;
    char* get() const { return p_; }
    std::size_t size() const { return size_; }

  private:
    u32 size_;
    char* p_;
};

constexpr const char* kSeparators = "/\\";
constexpr u32 kCopyChunk = 512;

// realpath writes up to PATH_MAX bytes (terminator included) into its buffer.
constexpr u32 kResolveBlock = PATH_MAX + 1;

bool is_dot_name(const char* path) { return std::strcmp(path, ".") == 0 || std::strcmp(path, "..") == 0; }

// Retries a call interrupted by a signal.
template <typename Call>
auto retry_eintr(Call&& call) {
    for (;;) {
        auto r = call();
        if (r >= 0 || errno != EINTR) return r;
    }
}

// Writes the whole chunk, across partial writes. A write that reports 0
// bytes would never finish the chunk: it counts as a failure.
bool write_all(int fd, const char* data, std::size_t n) {
    while (n > 0) {
        ssize_t w = retry_eintr([&] { return write(fd, data, n); });
        if (w <= 0) return false;
        data += w;
        n -= static_cast<std::size_t>(w);
    }
    return true;
}

// Copies source to its end: true when every byte was read and written.
bool copy_contents(int source, int destination) {
    char chunk[kCopyChunk];
    for (;;) {
        ssize_t n = retry_eintr([&] { return read(source, chunk, sizeof chunk); });
        if (n == 0) return true;
        if (n < 0 || !write_all(destination, chunk, static_cast<std::size_t>(n))) return false;
    }
}

// Copying a file onto itself would truncate it before the first read.
bool same_file(const struct stat& source, const char* destination) {
    struct stat d;
    return stat(destination, &d) == 0 && d.st_dev == source.st_dev && d.st_ino == source.st_ino;
}

} // namespace

extern "C" {

s32 QOSA_MkDir_P(const char* path, u32 mode) {
    u32 length = QOSA_StrLen(path);
    if (length == 0) return -1;
    if (is_dot_name(path)) return 0;

    // The pieces are cut out of a working copy; the path under construction
    // holds every piece followed by one slash (plus a leading slash): at most
    // one character more than the caller's path.
    TrackedBlock pieces(length + 1);
    TrackedBlock built(length + 2);
    if (pieces.get() == nullptr || built.get() == nullptr) return -1;
    strncpy_s(pieces.get(), pieces.size(), path, length);
    memset_s(built.get(), built.size(), 0, built.size());
    if (path[0] == '/') strcat_s(built.get(), built.size(), "/");

    // Empty pieces are skipped, so runs of separators count as one. A failing
    // mkdir (the directory exists, no permission) does not end the walk: a
    // later piece may still be creatable, and existing ones are the common case.
    char* context = nullptr;
    for (char* piece = strtok_s(pieces.get(), kSeparators, &context); piece != nullptr;
         piece = strtok_s(nullptr, kSeparators, &context)) {
        strcat_s(built.get(), built.size(), piece);
        strcat_s(built.get(), built.size(), "/");
        mkdir(built.get(), mode16(mode));
    }
    return 0;
}

s32 QOSA_RelPath(const char* path, char* out, s32 outSize) {
    if (path == nullptr || out == nullptr) return 1;
    TrackedBlock resolved(kResolveBlock);
    if (resolved.get() == nullptr || realpath(path, resolved.get()) == nullptr) return 1;
    u32 length = QOSA_StrLen(resolved.get());
    if (static_cast<s32>(length) > outSize) return 1;
    // A length equal to outSize leaves no room for the terminator: refused here.
    return strncpy_s(out, static_cast<std::size_t>(outSize), resolved.get(), length) == 0 ? 0 : 1;
}

s32 QOSA_CopyFile(const char* source, const char* destination) {
    if (QOSA_StrLen(source) == 0 || QOSA_StrLen(destination) == 0) return -1;
    int in = open(source, O_RDONLY | O_CLOEXEC);
    if (in < 0) return -1;
    struct stat s;
    if (fstat(in, &s) != 0) {
        close(in);
        return -1;
    }
    if (same_file(s, destination)) {
        close(in);
        return 0;
    }
    int out = open(destination, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, s.st_mode & 07777);
    if (out < 0) {
        close(in);
        return -1;
    }
    bool whole = copy_contents(in, out);
    // Keep the errno of a failed copy across the closes.
    int err = errno;
    close(in);
    close(out);
    errno = err;
    return whole ? 0 : -1;
}

// scandir takes its entries and the list from malloc: they go back to free,
// whatever the memory-tracking state.
void QOSA_DestoryNameList(struct dirent** list, u32 count) {
    if (list == nullptr) return;
    for (u32 i = 0; i < count; ++i) {
        std::free(list[i]);
        list[i] = nullptr;
    }
    std::free(list);
}

} // extern "C"

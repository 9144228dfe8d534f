// Files and directories: the pass-through wrappers over directory streams,
// buffered streams and descriptors, file status, and the path utilities; and
// the permissive UTF-8 codec (at the end of the unit).
#define QOSA_UNIT_NAME "os_fil_config.c"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>

#include "internal/common.h"
#include "internal/mem_switch.h"
#include "qosa_file.h"
#include "qosa_mem.h"
#include "qosa_string.h"
#include "qosa_text.h"
#include "internal/tracked.h"
#include "internal/utf8.h"

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

extern "C" {

// ---- directories and the working directory ----

DIR* QOSA_OpenDir(const char* path) {
    return guarded<DIR*>(nullptr, need(path), [=] { return opendir(path); });
}
int QOSA_CloseDir(DIR* dir) {
    return guarded(-1, need(dir), [=] { return closedir(dir); });
}
struct dirent* QOSA_ReadDir(DIR* dir) {
    return guarded<struct dirent*>(nullptr, need(dir), [=] { return readdir(dir); });
}
int QOSA_ReadDir_S(DIR* dir, struct dirent* entry, struct dirent** result) {
    return guarded(-1, need(dir, entry, result), [=] { return read_dir_into(dir, entry, result); });
}
int QOSA_DirFd(DIR* dir) {
    return guarded(-1, need(dir), [=] { return dirfd(dir); });
}
void QOSA_RewindDir(DIR* dir) {
    guarded(nothing, need(dir), [=] { rewinddir(dir); });
}
void QOSA_SeekDir(DIR* dir, s32 pos) {
    guarded(nothing, need(dir), [=] { seekdir(dir, long{pos}); });
}
s32 QOSA_TellDir(DIR* dir) {
    return guarded<s32>(-1, need(dir), [=] { return telldir(dir); });
}

int QOSA_ScanDir(const char* path, struct dirent*** list, QOSA_DirFilter filter, QOSA_DirCompare compare) {
    return guarded(-1, need(path, list), [=] { return scandir(path, list, filter, compare); });
}
int QOSA_Alphasort(const struct dirent** a, const struct dirent** b) { return compare_entries<alphasort>(a, b); }
int QOSA_Versionsort(const struct dirent** a, const struct dirent** b) { return compare_entries<versionsort>(a, b); }

char* QOSA_GetCwd(char* buf, s32 size) {
    // A negative size becomes 0, which the platform refuses with EINVAL.
    return guarded<char*>(nullptr, need(buf), [=] { return getcwd(buf, size > 0 ? static_cast<size_t>(size) : 0); });
}
int QOSA_ChDir(const char* path) {
    return guarded(-1, need(as_path(path)), [=] { return chdir(path); });
}
int QOSA_RmDir(const char* path) {
    return guarded(-1, need(as_path(path)), [=] { return rmdir(path); });
}
int QOSA_MkDir(const char* path, u32 mode) {
    return guarded(-1, need(as_path(path)), [=] { return mkdir(path, mode16(mode)); });
}
int QOSA_Access(const char* path, u32 mode) {
    return guarded(-1, need(as_path(path)), [=] { return access(path, static_cast<int>(mode)); });
}
int QOSA_Remove(const char* path) {
    return guarded(-1, need(as_path(path)), [=] { return remove(path); });
}
int QOSA_Rename(const char* oldPath, const char* newPath) {
    return guarded(-1, need(as_path(oldPath), as_path(newPath)), [=] { return rename(oldPath, newPath); });
}

// ---- buffered streams ----

FILE* QOSA_Fopen(const char* path, const char* mode) {
    return guarded<FILE*>(nullptr, need(as_path(path), as_path(mode)), [=] { return fopen(path, mode); });
}
int QOSA_Fflush(FILE* stream) {
    return guarded(-1, need(stream), [=] { return fflush(stream); });
}
int QOSA_Fclose(FILE* stream) {
    return guarded(-1, need(stream), [=] { return fclose(stream); });
}
FILE* QOSA_TmpFile(void) { return tmpfile(); }

int QOSA_Fprintf(FILE* stream, const char* format, ...) {
    va_list args;
    va_start(args, format);
    int r = guarded(-1, need(stream, as_path(format)), [&] { return vfprintf(stream, format, args); });
    va_end(args);
    return r;
}

int QOSA_Printf(const char* format, ...) {
    va_list args;
    va_start(args, format);
    int r = guarded(-1, need(format), [&] { return vprintf(format, args); });
    va_end(args);
    return r;
}

int QOSA_Fgetc(FILE* stream) {
    return guarded(-1, need(stream), [=] { return fgetc(stream); });
}
int QOSA_Fputc(int c, FILE* stream) {
    return guarded(-1, need(stream), [=] { return fputc(c, stream); });
}
char* QOSA_Fgets(char* buf, u32 size, FILE* stream) {
    return guarded<char*>(nullptr, need(buf, stream), [=] { return fgets(buf, fgets_size(size), stream); });
}
int QOSA_Fputs(const char* s, FILE* stream) {
    return guarded(-1, need(s, stream), [=] { return fputs(s, stream); });
}
size_t QOSA_Fread(void* buf, u32 size, u32 count, FILE* stream) {
    return guarded<size_t>(0, need(buf, stream), [=] { return fread(buf, size, count, stream); });
}
size_t QOSA_Fwrite(const void* buf, u32 size, u32 count, FILE* stream) {
    return guarded<size_t>(0, need(buf, stream), [=] { return fwrite(buf, size, count, stream); });
}
int QOSA_Fseek(FILE* stream, s32 offset, int origin) {
    return guarded(-1, need(stream), [=] { return fseek(stream, long{offset}, origin); });
}
s32 QOSA_Ftell(FILE* stream) {
    return guarded<s32>(-1, need(stream), [=] { return ftell(stream); });
}
void QOSA_Rewind(FILE* stream) {
    guarded(nothing, need(stream), [=] { rewind(stream); });
}
int QOSA_Fgetpos(FILE* stream, fpos_t* pos) {
    return guarded(-1, need(stream, pos), [=] { return fgetpos(stream, pos); });
}
int QOSA_Fsetpos(FILE* stream, const fpos_t* pos) {
    return guarded(-1, need(stream, pos), [=] { return fsetpos(stream, pos); });
}
void QOSA_Clearerr(FILE* stream) {
    guarded(nothing, need(stream), [=] { clearerr(stream); });
}
int QOSA_Feof(FILE* stream) {
    return guarded(-1, need(stream), [=] { return feof(stream); });
}
int QOSA_Ferror(FILE* stream) {
    return guarded(-1, need(stream), [=] { return ferror(stream); });
}
int QOSA_Fileno(FILE* stream) {
    return guarded(-1, need(stream), [=] { return fileno(stream); });
}

// ---- file descriptors ----

int QOSA_Open(const char* path, int flags, u32 mode) {
    return guarded(-1, need(as_path(path)), [=] { return open(path, flags, static_cast<mode_t>(mode)); });
}
int QOSA_Creat(const char* path, u32 mode) {
    return guarded(-1, need(as_path(path)), [=] { return creat(path, mode16(mode)); });
}
s32 QOSA_Read(int fd, void* buf, u32 len) {
    return guarded<s32>(-1, need(buf), [=] { return read(fd, buf, len); });
}
s32 QOSA_Write(int fd, const void* buf, u32 len) {
    return guarded<s32>(-1, need(buf), [=] { return write(fd, buf, len); });
}
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
    if (size == nullptr || qosa::str_len(path) == 0) return QOSA_ERROR;
    struct stat s;
    if (stat(path, &s) != 0) return 1;
    // 0xFFFFFFFF itself is the failure value, so the largest size told is one below.
    if (static_cast<u64>(s.st_size) > 0xFFFFFFFEu) return 1;
    *size = static_cast<u32>(s.st_size);
    return 0;
}

u32 QOSA_Stat(const char* path, QOSA_STAT_S* st) {
    return guarded<u32>(QOSA_ERROR, need(path, st), [=] { return stat_into(path, st); });
}
u32 QOSA_FStat(int fd, QOSA_STAT_S* st) {
    return guarded<u32>(QOSA_ERROR, need(st), [=] { return fstat_into(fd, st); });
}
}
// =============================================================================
// Path utilities and the release of directory listings
// =============================================================================

namespace {

// Owns one block of the tracked allocator for the length of a call; the
// block is recorded against the line that asked for it.
class TrackedBlock {
  public:
    TrackedBlock(u32 size, u32 line)
        : size_(size), line_(line), p_(static_cast<char*>(qosa::tracked::alloc(size, line, QOSA_UNIT_NAME))) {}
    ~TrackedBlock() {
        if (p_ != nullptr) qosa::tracked::release(p_, line_, QOSA_UNIT_NAME);
    }
    TrackedBlock(const TrackedBlock&) = delete;
    TrackedBlock& operator=(const TrackedBlock&) = delete;
    char* get() const { return p_; }
    std::size_t size() const { return size_; }

  private:
    u32 size_;
    u32 line_;
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
    decltype(call()) r;
    do
        r = call();
    while (r < 0 && errno == EINTR);
    return r;
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
    u32 length = qosa::str_len(path);
    if (length == 0) return -1;
    if (is_dot_name(path)) return 0;

    // The pieces are cut out of a working copy; the path under construction
    // holds every piece followed by one slash (plus a leading slash): at most
    // one character more than the caller's path.
    TrackedBlock pieces(length + 1, __LINE__);
    TrackedBlock built(length + 2, __LINE__);
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
    TrackedBlock resolved(kResolveBlock, __LINE__);
    if (resolved.get() == nullptr || realpath(path, resolved.get()) == nullptr) return 1;
    u32 length = qosa::str_len(resolved.get());
    if (static_cast<s32>(length) > outSize) return 1;
    // A length equal to outSize leaves no room for the terminator: refused here.
    return strncpy_s(out, static_cast<std::size_t>(outSize), resolved.get(), length) == 0 ? 0 : 1;
}

s32 QOSA_CopyFile(const char* source, const char* destination) {
    if (qosa::str_len(source) == 0 || qosa::str_len(destination) == 0) return -1;
    int in = open(source, O_RDONLY | O_CLOEXEC);
    if (in < 0) return -1;
    struct stat s;
    // GCOVR_EXCL_START: fstat of a descriptor just opened does not fail on 64-bit Linux
    if (fstat(in, &s) != 0) {
        close(in);
        return -1;
    }
    // GCOVR_EXCL_STOP
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

// ==== the permissive UTF-8 codec ==========================================
// Sequences of up to six bytes and 31-bit code points, single sequences and
// whole strings. Malformed input is never rejected; the lead byte alone
// decides a sequence's length.

namespace {

using namespace qosa::utf8;

// The walk that sizes a decoding: three- and four-byte sequences count two
// units, five- and six-byte leads one per byte, so the count never falls
// below the units decoded.
u32 count_units(const u8* s, std::size_t n) {
    // Runs of one sequence length are walked with a fixed stride, so the next
    // index never waits for the byte just loaded.
    u32 count = 0;
    std::size_t i = 0;
    while (i < n) {
        u8 b = s[i];
        if (b < 0x80 && i + 8 <= n && (load8(s + i) & kHighBits) == 0) {
            count += 8;
            i += 8;
        } else if (b < 0xC0 || b >= 0xF8) {
            count += 1;
            i += 1;
        } else if (b < 0xE0) {
            while (i + 8 <= n && four_pairs<Rule::Loose>(load8(s + i))) {
                count += 4;
                i += 8;
            }
            while (i < n && (s[i] & 0xE0) == 0xC0) {
                count += 1;
                i += 2;
            }
        } else if (b < 0xF0) {
            do {
                count += 2;
                i += 3;
            } while (i < n && (s[i] & 0xF0) == 0xE0);
        } else {
            do {
                count += 2;
                i += 4;
            } while (i < n && (s[i] & 0xF8) == 0xF0);
        }
    }
    return count;
}

// UTF-8 bytes that n units need. Summed in 32-bit blocks so that the loop
// vectorises.
u64 utf8_bytes(const u32* u, std::size_t n) {
    u64 total = 0;
    for (std::size_t at = 0; at < n; at += 1u << 24) {
        std::size_t end = n - at < (1u << 24) ? n : at + (1u << 24);
        u32 block = 0;
        for (std::size_t i = at; i < end; ++i)
            block += encoded_length(u[i]);
        total += block;
    }
    return total;
}

std::size_t unit_count(const u32* w) {
    static_assert(sizeof(wchar_t) == sizeof(u32));
    return std::wcslen(reinterpret_cast<const wchar_t*>(w));
}

} // namespace

extern "C" {

s32 utf8_to_unicode(const u8* utf8, u32* unicode) {
    return guarded<s32>(0, need(utf8, unicode), [=] {
        unsigned len = kLeadLength<Rule::Loose>[utf8[0]];
        *unicode = decode_sequence(utf8, len);
        return static_cast<s32>(len);
    });
}

u8* unicode_to_utf8(u32 unicode, u8* utf8) {
    return guarded<u8*>(nullptr, need(utf8), [=] { return encode_sequence(unicode, encoded_length(unicode), utf8); });
}

u32 UTF8_LENGTH(u32 unicode) { return encoded_length(unicode); }

u32 get_utf8_strlen(const u32* unicode) {
    return unicode == nullptr ? 0 : static_cast<u32>(utf8_bytes(unicode, unit_count(unicode)));
}

u32 get_unicode_strlen(const char* utf8) { return count_units(reinterpret_cast<const u8*>(utf8), qosa::str_len(utf8)); }

u32* utf8Str_to_unicodeStr(const char* utf8) {
    u32 n = qosa::str_len(utf8);
    if (n == 0) return nullptr;
    const auto* s = reinterpret_cast<const u8*>(utf8);
    u32 count = count_units(s, n);
    if (count == 0 || count >= 0x3FFFFFFFu) return nullptr;
    u32 size = (count + 1) * static_cast<u32>(sizeof(u32));
    auto* out = static_cast<u32*>(QOSA_ALLOC(size));
    if (out == nullptr) return nullptr;
    auto k = static_cast<u32>(decode<Rule::Loose>(s, n, out, count));
    // The terminator and every unit after it are 0 (the terminator written
    // on its own, so even a tail too large for one bounded clear ends in 0).
    out[k] = 0;
    std::size_t tail = (static_cast<std::size_t>(count) - k) * sizeof(u32);
    if (tail != 0) memset_s(out + k + 1, tail, 0, tail);
    return out;
}

char* unicodeStr_to_utf8Str(const u32* unicode) {
    if (unicode == nullptr || unicode[0] == 0) return nullptr;
    std::size_t n = unit_count(unicode);
    u64 total = utf8_bytes(unicode, n);
    if (total >= 0xFFFFFFFFu) return nullptr;
    u32 size = static_cast<u32>(total) + 1;
    auto* out = static_cast<u8*>(QOSA_ALLOC(size));
    if (out == nullptr) return nullptr;
    // Lengths were measured above; the encoder stops rather than overrun
    // should the units have changed since.
    u8* p = encode<Units::Unsigned>(unicode, n, out, out + total);
    std::size_t rest = static_cast<std::size_t>(out + size - p);
    memset_s(p, rest, 0, rest);
    return reinterpret_cast<char*>(out);
}

} // extern "C"

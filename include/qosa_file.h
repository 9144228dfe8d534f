/** @file
 * Files, streams, descriptors, directories and paths.
 *
 * Pass-through wrappers: each returns the platform call's own result and
 * leaves errno as the platform set it. A guarded pointer argument that is
 * null, or a guarded path that is null or empty, gives the failure value
 * noted without calling the platform and without touching errno. Modes taken
 * as u32 by mkdir-like calls keep their low 16 bits. */
#ifndef QOSA_FILE_H
#define QOSA_FILE_H

#include <dirent.h>
#include <stdio.h>
#include <sys/types.h>

#include "qosa_types.h"

QOSA_EXTERN_C_BEGIN

/** @def QOSA_PRINTF_LIKE(fmt, args)
 * Lets the compiler check a printf-style format (argument fmt) against the
 * arguments from args on. */
#if defined(__GNUC__) || defined(__clang__)
#define QOSA_PRINTF_LIKE(fmt, args) __attribute__((format(printf, fmt, args)))
#else
#define QOSA_PRINTF_LIKE(fmt, args)
#endif

/** File status, filled by QOSA_Stat and QOSA_FStat. Times are whole seconds
 * since the epoch. */
typedef struct QOSA_STAT_S {
    s64 dev;   /**< device of the file */
    u64 ino;   /**< inode number */
    u32 mode;  /**< file type and permission bits */
    u32 nlink; /**< number of hard links (low 32 bits) */
    u64 uid;   /**< owner's user id */
    u64 gid;   /**< owner's group id */
    s64 size;  /**< size in bytes */
    s64 atime; /**< last access */
    s64 mtime; /**< last modification */
    s64 ctime; /**< last status change */
} QOSA_STAT_S;

/** Filter of a directory listing (QOSA_ScanDir). @param entry an entry
 * @return non-zero to keep it */
typedef int (*QOSA_DirFilter)(const struct dirent* entry);
/** Order of a directory listing (QOSA_ScanDir). @param a,b two entries
 * @return below, equal to or above 0 as a sorts before, with or after b */
typedef int (*QOSA_DirCompare)(const struct dirent** a, const struct dirent** b);

/** @name Directories and the working directory */
/** @{ */
/** opendir. @param path the directory
 * @return the stream, closed with QOSA_CloseDir; NULL with errno, or for a
 *         null path */
QOSA_API DIR* QOSA_OpenDir(const char* path);
/** closedir. @param dir the stream @return 0; -1 with errno, or for NULL */
QOSA_API int QOSA_CloseDir(DIR* dir);
/** readdir. @param dir the stream
 * @return the next entry (the stream's storage, overwritten by the next
 *         read); NULL at the end, with errno, or for a null dir */
QOSA_API struct dirent* QOSA_ReadDir(DIR* dir);
/** Reads the next entry into the caller's buffer (readdir_r): the variant
 * for a stream read by several threads.
 * @param dir the stream @param entry receives the entry
 * @param result receives entry, or NULL at the end
 * @return 0 or an error number; -1 when any argument is NULL */
QOSA_API int QOSA_ReadDir_S(DIR* dir, struct dirent* entry, struct dirent** result);
/** dirfd. @param dir the stream @return its descriptor; -1 for NULL */
QOSA_API int QOSA_DirFd(DIR* dir);
/** rewinddir. @param dir the stream; NULL does nothing */
QOSA_API void QOSA_RewindDir(DIR* dir);
/** seekdir. @param dir the stream; NULL does nothing
 * @param pos a position from QOSA_TellDir */
QOSA_API void QOSA_SeekDir(DIR* dir, s32 pos);
/** telldir. @param dir the stream
 * @return the position (low 32 bits); -1 for NULL */
QOSA_API s32 QOSA_TellDir(DIR* dir);
/** scandir: lists a directory.
 * @param path the directory
 * @param list receives the listing, released with QOSA_DestoryNameList
 * @param filter keeps the entries it accepts; NULL keeps all
 * @param compare sorts the entries (QOSA_Alphasort, QOSA_Versionsort); NULL
 *        keeps directory order
 * @return the entry count; -1 with errno, or for a null path or list */
QOSA_API int QOSA_ScanDir(const char* path, struct dirent*** list, QOSA_DirFilter filter, QOSA_DirCompare compare);
/** Orders entries by name in the collating order (alphasort).
 * @param a,b the entries
 * @return as alphasort; -1 for a missing first entry, then 1 for a missing
 *         second one */
QOSA_API int QOSA_Alphasort(const struct dirent** a, const struct dirent** b);
/** Orders entries by name with embedded numbers in numeric order, file2
 * before file10 (versionsort). @param a,b the entries
 * @return as versionsort; -1 for a missing first entry, then 1 for a missing
 *         second one */
QOSA_API int QOSA_Versionsort(const struct dirent** a, const struct dirent** b);
/** getcwd. @param buf receives the path @param size size of buf in bytes (a
 * negative size is refused with EINVAL)
 * @return buf; NULL with errno, or for a null buf */
QOSA_API char* QOSA_GetCwd(char* buf, s32 size);
/** chdir. @param path the directory
 * @return 0; -1 with errno, or for a null or empty path */
QOSA_API int QOSA_ChDir(const char* path);
/** rmdir. @param path the directory
 * @return 0; -1 with errno, or for a null or empty path */
QOSA_API int QOSA_RmDir(const char* path);
/** mkdir. @param path the directory @param mode permission bits
 * @return 0; -1 with errno, or for a null or empty path */
QOSA_API int QOSA_MkDir(const char* path, u32 mode);
/** access. @param path the file @param mode F_OK, or R_OK | W_OK | X_OK
 * @return 0 when allowed; -1 with errno, or for a null or empty path */
QOSA_API int QOSA_Access(const char* path, u32 mode);
/** remove: a file or an empty directory. @param path the name
 * @return 0; -1 with errno, or for a null or empty path */
QOSA_API int QOSA_Remove(const char* path);
/** rename. @param oldPath,newPath the names
 * @return 0; -1 with errno, or when either is null or empty */
QOSA_API int QOSA_Rename(const char* oldPath, const char* newPath);
/** @} */

/** @name Buffered streams
 * NULL (pointer results), 0 (item counts), -1 (the rest) for a null stream
 * or buffer; QOSA_Rewind and QOSA_Clearerr then do nothing. */
/** @{ */
/** fopen. @param path the file @param mode "r", "w+", ...
 * @return the stream, closed with QOSA_Fclose; NULL with errno, or when the
 *         path or the mode is null or empty */
QOSA_API FILE* QOSA_Fopen(const char* path, const char* mode);
/** fflush. @param stream the stream @return 0; EOF with errno; -1 for NULL */
QOSA_API int QOSA_Fflush(FILE* stream);
/** fclose. @param stream the stream @return 0; EOF with errno; -1 for NULL */
QOSA_API int QOSA_Fclose(FILE* stream);
/** tmpfile: a temporary file removed when closed.
 * @return the stream, closed with QOSA_Fclose; NULL with errno */
QOSA_API FILE* QOSA_TmpFile(void);
/** vfprintf: formats straight into the stream, without a length limit.
 * @param stream the stream @param format printf format, then its arguments
 * @return the characters written, or negative; -1 for a null stream or an
 *         empty format */
QOSA_API int QOSA_Fprintf(FILE* stream, const char* format, ...) QOSA_PRINTF_LIKE(2, 3);
/** vprintf to standard output. @param format printf format, then its
 * arguments @return the characters written (0 for an empty format), or
 * negative; -1 for a null format */
QOSA_API int QOSA_Printf(const char* format, ...) QOSA_PRINTF_LIKE(1, 2);
/** fgetc. @param stream the stream
 * @return the byte as unsigned char; EOF (-1) at the end, on error, or for
 *         NULL */
QOSA_API int QOSA_Fgetc(FILE* stream);
/** fputc. @param c the byte @param stream the stream
 * @return c as unsigned char; EOF on error; -1 for NULL */
QOSA_API int QOSA_Fputc(int c, FILE* stream);
/** fgets: one line, with its line end. @param buf receives it
 * @param size size of buf in bytes @param stream the stream
 * @return buf; NULL at the end, on error, or when buf or stream is NULL */
QOSA_API char* QOSA_Fgets(char* buf, u32 size, FILE* stream);
/** fputs. @param s the string @param stream the stream
 * @return non-negative; EOF on error; -1 when s or stream is NULL */
QOSA_API int QOSA_Fputs(const char* s, FILE* stream);
/** fread. @param buf receives the items @param size bytes per item
 * @param count items wanted @param stream the stream
 * @return items read; 0 when buf or stream is NULL */
QOSA_API size_t QOSA_Fread(void* buf, u32 size, u32 count, FILE* stream);
/** fwrite. @param buf the items @param size bytes per item
 * @param count items @param stream the stream
 * @return items written; 0 when buf or stream is NULL */
QOSA_API size_t QOSA_Fwrite(const void* buf, u32 size, u32 count, FILE* stream);
/** fseek. @param stream the stream @param offset bytes from origin
 * @param origin SEEK_SET, SEEK_CUR or SEEK_END
 * @return 0; -1 with errno, or for NULL */
QOSA_API int QOSA_Fseek(FILE* stream, s32 offset, int origin);
/** ftell. @param stream the stream
 * @return the position (low 32 bits); -1 with errno, or for NULL */
QOSA_API s32 QOSA_Ftell(FILE* stream);
/** rewind. @param stream the stream; NULL does nothing */
QOSA_API void QOSA_Rewind(FILE* stream);
/** fgetpos. @param stream the stream @param pos receives the position
 * @return 0; -1 with errno, or when either is NULL */
QOSA_API int QOSA_Fgetpos(FILE* stream, fpos_t* pos);
/** fsetpos. @param stream the stream @param pos a position from QOSA_Fgetpos
 * @return 0; -1 with errno, or when either is NULL */
QOSA_API int QOSA_Fsetpos(FILE* stream, const fpos_t* pos);
/** clearerr: clears the end-of-file and error marks. @param stream the
 * stream; NULL does nothing */
QOSA_API void QOSA_Clearerr(FILE* stream);
/** feof. @param stream the stream
 * @return non-zero at the end of the file, else 0; -1 for NULL */
QOSA_API int QOSA_Feof(FILE* stream);
/** ferror. @param stream the stream
 * @return non-zero after an error, else 0; -1 for NULL */
QOSA_API int QOSA_Ferror(FILE* stream);
/** fileno. @param stream the stream
 * @return its descriptor; -1 with errno, or for NULL */
QOSA_API int QOSA_Fileno(FILE* stream);
/** @} */

/** @name File descriptors
 * -1 for an empty path or a null buffer; the rest are not guarded. Results
 * are the platform's: -1 with errno on failure. */
/** @{ */
/** open. @param path the file @param flags O_ flags
 * @param mode permission bits when created
 * @return the descriptor, closed with QOSA_Close; -1 with errno, or for a
 *         null or empty path */
QOSA_API int QOSA_Open(const char* path, int flags, u32 mode);
/** creat. @param path the file @param mode permission bits
 * @return the descriptor, closed with QOSA_Close; -1 with errno, or for a
 *         null or empty path */
QOSA_API int QOSA_Creat(const char* path, u32 mode);
/** read. @param fd the descriptor @param buf receives the bytes
 * @param len bytes wanted
 * @return bytes read, 0 at the end; -1 with errno, or for a null buf */
QOSA_API s32 QOSA_Read(int fd, void* buf, u32 len);
/** write. @param fd the descriptor @param buf the bytes @param len how many
 * @return bytes written; -1 with errno, or for a null buf */
QOSA_API s32 QOSA_Write(int fd, const void* buf, u32 len);
/** close. @param fd the descriptor @return 0; -1 with errno */
QOSA_API int QOSA_Close(int fd);
/** The same as QOSA_Close. @param fd the descriptor @return 0; -1 with errno */
QOSA_API int QOSA_CloseHandle(int fd);
/** lseek. @param fd the descriptor @param offset bytes from origin
 * @param origin SEEK_SET, SEEK_CUR or SEEK_END
 * @return the new position; -1 with errno */
QOSA_API off_t QOSA_LSeek(int fd, s32 offset, int origin);
/** ftruncate. @param fd the descriptor @param length the new length
 * @return 0; -1 with errno */
QOSA_API int QOSA_Ftruncate(int fd, s32 length);
/** ioctl. @param fd the descriptor @param request the request (widened with
 * its sign) @param arg its argument @return the request's result; -1 with
 * errno */
QOSA_API int QOSA_Ioctl(int fd, s32 request, void* arg);
/** fcntl. @param fd the descriptor @param cmd F_GETFD, F_SETFL, ...
 * @param arg an integer or a pointer cast to long, as cmd needs
 * @return the command's result; -1 with errno */
QOSA_API int QOSA_Fcntl(int fd, int cmd, long arg);
/** @} */

/** @name File size and status */
/** @{ */
/** A file's size as a 32-bit count. @param path the file
 * @param size receives the size (left alone on failure)
 * @return 0; 1 when the file cannot be examined or is larger than 0xFFFFFFFE
 *         bytes; 0xFFFFFFFF for a null size pointer or an empty path */
QOSA_API u32 QOSA_GetFileSize(const char* path, u32* size);
/** stat into the library's record. @param path the file
 * @param st receives the status (cleared first; left alone on failure)
 * @return 0; the platform's non-zero result when the file cannot be
 *         examined; 0xFFFFFFFF when either pointer is NULL */
QOSA_API u32 QOSA_Stat(const char* path, QOSA_STAT_S* st);
/** fstat into the library's record. @param fd the descriptor
 * @param st receives the status (cleared first; left alone on failure)
 * @return 0; the platform's non-zero result on failure; 0xFFFFFFFF for a
 *         null st */
QOSA_API u32 QOSA_FStat(int fd, QOSA_STAT_S* st);
/** @} */

/** @name Paths */
/** @{ */
/** Creates every directory along a path; slash and backslash both separate,
 * runs of separators count as one, a leading backslash makes the path
 * relative. A failing mkdir (the directory exists, no permission) does not
 * stop the walk: QOSA_Access tells whether the directory is there.
 * @param path the path; "." and ".." create nothing
 * @param mode permission bits of the directories made
 * @return 0 when the path was usable and memory sufficed; -1 for a null or
 *         empty path or when memory is short */
QOSA_API s32 QOSA_MkDir_P(const char* path, u32 mode);
/** Canonical absolute form of a path (symbolic links, "." and ".."
 * resolved). @param path the path @param out receives the result
 * @param outSize size of out in bytes
 * @return 0; 1 when the path cannot be resolved or the text and its
 *         terminator do not fit */
QOSA_API s32 QOSA_RelPath(const char* path, char* out, s32 outSize);
/** Copies a file's contents to destination (created with source's mode, or
 * truncated). @param source,destination the files
 * @return 0 when the whole file was copied; -1 when a path is empty, a file
 *         cannot be opened or examined, or a read or write failed on the way */
QOSA_API s32 QOSA_CopyFile(const char* source, const char* destination);
/** Releases a listing of QOSA_ScanDir: its entries, then the list.
 * @param list the listing; NULL is ignored
 * @param count the entry count QOSA_ScanDir reported (never its -1) */
QOSA_API void QOSA_DestoryNameList(struct dirent** list, u32 count);
/** @} */

QOSA_EXTERN_C_END

#endif /* QOSA_FILE_H */

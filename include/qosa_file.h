/* Files, streams, descriptors, directories and paths. */
#ifndef QOSA_FILE_H
#define QOSA_FILE_H

#include <dirent.h>
#include <stdio.h>
#include <sys/types.h>

#include "qosa_types.h"

QOSA_EXTERN_C_BEGIN

/* Pass-through wrappers: each returns the platform call's own result and
 * leaves errno as the platform set it. A guarded pointer argument that is
 * null, or a guarded path that is null or empty, gives the failure value
 * noted below without calling the platform and without touching errno.
 * Modes taken as u32 by mkdir-like calls keep their low 16 bits. */

#if defined(__GNUC__) || defined(__clang__)
#define QOSA_PRINTF_LIKE(fmt, args) __attribute__((format(printf, fmt, args)))
#else
#define QOSA_PRINTF_LIKE(fmt, args)
#endif

/* File status, filled by QOSA_Stat and QOSA_FStat. Times are whole seconds
 * since the epoch. */
typedef struct QOSA_STAT_S {
    s64 dev;
    u64 ino;
    u32 mode;
    u32 nlink;
    u64 uid;
    u64 gid;
    s64 size;
    s64 atime;
    s64 mtime;
    s64 ctime;
} QOSA_STAT_S;

/* Filter and order of a directory listing (QOSA_ScanDir). */
typedef int (*QOSA_DirFilter)(const struct dirent* entry);
typedef int (*QOSA_DirCompare)(const struct dirent** a, const struct dirent** b);

/* ---- directories and the working directory ----
 * QOSA_OpenDir / QOSA_ReadDir: NULL for a null argument. The others: -1 for
 * a null stream or an empty path; QOSA_RewindDir / QOSA_SeekDir do nothing. */
QOSA_API DIR* QOSA_OpenDir(const char* path);
QOSA_API int QOSA_CloseDir(DIR* dir);
QOSA_API struct dirent* QOSA_ReadDir(DIR* dir);
/* The entry is written to the caller's buffer: the variant for a stream read
 * by several threads. -1 when any argument is null. */
QOSA_API int QOSA_ReadDir_S(DIR* dir, struct dirent* entry, struct dirent** result);
QOSA_API int QOSA_DirFd(DIR* dir);
QOSA_API void QOSA_RewindDir(DIR* dir);
QOSA_API void QOSA_SeekDir(DIR* dir, s32 pos);
QOSA_API s32 QOSA_TellDir(DIR* dir);
/* The entry count, or -1 (null path or list pointer, or the platform failed).
 * Release the listing with QOSA_DestoryNameList. */
QOSA_API int QOSA_ScanDir(const char* path, struct dirent*** list, QOSA_DirFilter filter, QOSA_DirCompare compare);
/* Comparison functions for QOSA_ScanDir: by name in the collating order, or
 * by name with embedded numbers in numeric order (file2 before file10). A
 * missing first entry gives -1, then a missing second one gives 1. */
QOSA_API int QOSA_Alphasort(const struct dirent** a, const struct dirent** b);
QOSA_API int QOSA_Versionsort(const struct dirent** a, const struct dirent** b);
/* NULL for a null buffer; a negative size is refused by the platform. */
QOSA_API char* QOSA_GetCwd(char* buf, s32 size);
QOSA_API int QOSA_ChDir(const char* path);
QOSA_API int QOSA_RmDir(const char* path);
QOSA_API int QOSA_MkDir(const char* path, u32 mode);
QOSA_API int QOSA_Access(const char* path, u32 mode);
QOSA_API int QOSA_Remove(const char* path);
QOSA_API int QOSA_Rename(const char* oldPath, const char* newPath);

/* ---- buffered streams ----
 * NULL (pointer results), 0 (item counts), -1 (the rest) for a null stream
 * or buffer; QOSA_Rewind / QOSA_Clearerr do nothing. */
/* NULL when the path or the mode is null or empty. */
QOSA_API FILE* QOSA_Fopen(const char* path, const char* mode);
QOSA_API int QOSA_Fflush(FILE* stream);
QOSA_API int QOSA_Fclose(FILE* stream);
QOSA_API FILE* QOSA_TmpFile(void);
/* Format straight into the stream, without a length limit: the characters
 * written, or negative. QOSA_Fprintf refuses an empty format (-1); an empty
 * format given to QOSA_Printf writes nothing and gives 0. */
QOSA_API int QOSA_Fprintf(FILE* stream, const char* format, ...) QOSA_PRINTF_LIKE(2, 3);
QOSA_API int QOSA_Printf(const char* format, ...) QOSA_PRINTF_LIKE(1, 2);
QOSA_API int QOSA_Fgetc(FILE* stream);
QOSA_API int QOSA_Fputc(int c, FILE* stream);
QOSA_API char* QOSA_Fgets(char* buf, u32 size, FILE* stream);
QOSA_API int QOSA_Fputs(const char* s, FILE* stream);
QOSA_API size_t QOSA_Fread(void* buf, u32 size, u32 count, FILE* stream);
QOSA_API size_t QOSA_Fwrite(const void* buf, u32 size, u32 count, FILE* stream);
QOSA_API int QOSA_Fseek(FILE* stream, s32 offset, int origin);
QOSA_API s32 QOSA_Ftell(FILE* stream);
QOSA_API void QOSA_Rewind(FILE* stream);
QOSA_API int QOSA_Fgetpos(FILE* stream, fpos_t* pos);
QOSA_API int QOSA_Fsetpos(FILE* stream, const fpos_t* pos);
QOSA_API void QOSA_Clearerr(FILE* stream);
QOSA_API int QOSA_Feof(FILE* stream);
QOSA_API int QOSA_Ferror(FILE* stream);
QOSA_API int QOSA_Fileno(FILE* stream);

/* ---- file descriptors ----
 * -1 for an empty path or a null buffer; the rest are not guarded. */
QOSA_API int QOSA_Open(const char* path, int flags, u32 mode);
QOSA_API int QOSA_Creat(const char* path, u32 mode);
QOSA_API s32 QOSA_Read(int fd, void* buf, u32 len);
QOSA_API s32 QOSA_Write(int fd, const void* buf, u32 len);
QOSA_API int QOSA_Close(int fd);
QOSA_API int QOSA_CloseHandle(int fd);
QOSA_API off_t QOSA_LSeek(int fd, s32 offset, int origin);
QOSA_API int QOSA_Ftruncate(int fd, s32 length);
QOSA_API int QOSA_Ioctl(int fd, s32 request, void* arg);
/* The argument is an integer or a pointer cast to long, as the command needs. */
QOSA_API int QOSA_Fcntl(int fd, int cmd, long arg);

/* ---- file size and status ---- */
/* 0 with the size stored; 1 when the file cannot be examined or is larger
 * than 0xFFFFFFFE bytes (the size is then left alone); 0xFFFFFFFF for a null
 * size pointer or an empty path. */
QOSA_API u32 QOSA_GetFileSize(const char* path, u32* size);
/* 0 with the record filled (cleared first); the platform's non-zero result
 * when the file cannot be examined (the record is left alone); 0xFFFFFFFF
 * for a null pointer. */
QOSA_API u32 QOSA_Stat(const char* path, QOSA_STAT_S* st);
QOSA_API u32 QOSA_FStat(int fd, QOSA_STAT_S* st);

/* ---- paths ---- */
/* Creates every directory along path; slash and backslash both separate,
 * runs of separators count as one, a leading backslash makes the path
 * relative. A failing mkdir (the directory exists, no permission) does not
 * stop the walk: 0 only says that the path was usable and memory sufficed,
 * QOSA_Access tells whether the directory is there. -1 for a null or empty
 * path or when memory is short. "." and ".." give 0 and create nothing. */
QOSA_API s32 QOSA_MkDir_P(const char* path, u32 mode);
/* Canonical absolute form of path (symbolic links, "." and ".." resolved)
 * into out: 0, or 1 when the path cannot be resolved or the text and its
 * terminator do not fit in outSize bytes. */
QOSA_API s32 QOSA_RelPath(const char* path, char* out, s32 outSize);
/* Copies source's contents to destination (created with source's mode, or
 * truncated). 0 when the whole file was copied; -1 when a path is empty, a
 * file cannot be opened or examined, or a read or write failed on the way. */
QOSA_API s32 QOSA_CopyFile(const char* source, const char* destination);
/* Releases a listing of QOSA_ScanDir: its count entries, then the list. */
QOSA_API void QOSA_DestoryNameList(struct dirent** list, u32 count);

QOSA_EXTERN_C_END

#endif /* QOSA_FILE_H */

// Guarded entry points of the files and directories family.
#include <dirent.h>

#include "guard_cases.h"
#include "qosa.h"

// Present arguments, opened before any row runs (so no row calls the platform for them).
static DIR* const s_dir = opendir("/");
static FILE* const s_stream = stdout; // a read from it fails, a write goes through
static struct dirent s_entry;
static struct dirent* s_result;
static struct dirent** s_list;
static const struct dirent* s_ent = &s_entry;
static const struct dirent* s_noEnt = nullptr;
static const char* const s_path = "/";
static const char* const s_text = "x";
static fpos_t s_pos;
static char s_buf[64];
static QOSA_STAT_S s_record;
static u32 s_size;

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-zero-length"
#pragma GCC diagnostic ignored "-Wformat"

static GuardRows s_rows{
    WITHOUT_ARGS(-1, QOSA_CloseDir, QOSA_DirFd, QOSA_TellDir, QOSA_RmDir, QOSA_Access, QOSA_Fflush, QOSA_Fclose,
                 QOSA_Fgetc, QOSA_Fputc, QOSA_Fseek, QOSA_Ftell, QOSA_Feof, QOSA_Ferror, QOSA_Fileno, QOSA_Creat,
                 QOSA_Read, QOSA_Write, QOSA_MkDir_P),
    WITHOUT_ARGS(0, QOSA_OpenDir, QOSA_ReadDir, QOSA_RewindDir, QOSA_SeekDir, QOSA_GetCwd, QOSA_Rewind, QOSA_Clearerr),
    WITHOUT_ARGS(0xFFFFFFFF, QOSA_FStat),
    EACH_MISSING(QOSA_ReadDir_S, -1, s_dir, &s_entry, &s_result),
    EACH_MISSING(QOSA_ScanDir, -1, s_path, &s_list, nullptr, nullptr),
    CASE("QOSA_Alphasort_both", -1, QOSA_Alphasort(nullptr, nullptr)),
    CASE("QOSA_Alphasort_first", -1, QOSA_Alphasort(nullptr, &s_ent)),
    CASE("QOSA_Alphasort_second", 1, QOSA_Alphasort(&s_ent, nullptr)),
    CASE("QOSA_Versionsort_both", -1, QOSA_Versionsort(nullptr, nullptr)),
    CASE("QOSA_Versionsort_second", 1, QOSA_Versionsort(&s_ent, nullptr)),
    CASE("QOSA_Versionsort_first_entry", -1, QOSA_Versionsort(&s_noEnt, &s_ent)),
    CASE("QOSA_Alphasort_second_entry", 1, QOSA_Alphasort(&s_ent, &s_noEnt)),
    CASE("QOSA_ChDir", -1, QOSA_ChDir("")),
    CASE("QOSA_MkDir", -1, QOSA_MkDir("", 0755)),
    CASE("QOSA_Remove", -1, QOSA_Remove("")),
    CASE("QOSA_Rename_old", -1, QOSA_Rename(nullptr, "/x")),
    CASE("QOSA_Rename_new", -1, QOSA_Rename("/x", "")),
    CASE("QOSA_Fopen_path", 0, QOSA_Fopen("", "r")),
    CASE("QOSA_Fopen_mode", 0, QOSA_Fopen("/qosa-never-made", "")),
    CASE("QOSA_Fopen_nullmode", 0, QOSA_Fopen("/qosa-never-made", nullptr)),
    CASE("QOSA_Fprintf_stream", -1, QOSA_Fprintf(nullptr, "%d", 1)),
    CASE("QOSA_Fprintf_empty", -1, QOSA_Fprintf(stdout, "")),
    CASE("QOSA_Fprintf_null", -1, QOSA_Fprintf(stdout, nullptr)),
    CASE("QOSA_Printf", -1, QOSA_Printf(nullptr)),
    EACH_MISSING(QOSA_Fgets, 0, s_buf, sizeof s_buf, s_stream),
    EACH_MISSING(QOSA_Fputs, -1, s_text, s_stream),
    EACH_MISSING(QOSA_Fread, 0, s_buf, 1, 8, s_stream),
    EACH_MISSING(QOSA_Fwrite, 0, s_buf, 1, 8, s_stream),
    EACH_MISSING(QOSA_Fgetpos, -1, s_stream, &s_pos),
    EACH_MISSING(QOSA_Fsetpos, -1, s_stream, &s_pos),
    CASE("QOSA_Open", -1, QOSA_Open("", 0, 0)),
    CASE("QOSA_GetFileSize_size", 0xFFFFFFFF, QOSA_GetFileSize("/", nullptr)),
    CASE("QOSA_GetFileSize_path", 0xFFFFFFFF, QOSA_GetFileSize("", &s_size)),
    EACH_MISSING(QOSA_Stat, 0xFFFFFFFF, s_path, &s_record),
    CASE("QOSA_MkDir_P_empty", -1, QOSA_MkDir_P("", 0755)),
    EACH_MISSING(QOSA_RelPath, 1, s_path, s_buf, sizeof s_buf),
    CASE("QOSA_CopyFile_source", -1, QOSA_CopyFile("", "/qosa-never-made")),
    CASE("QOSA_CopyFile_destination", -1, QOSA_CopyFile("/etc/hostname", nullptr)),
    CASE("QOSA_DestoryNameList", 0, QOSA_DestoryNameList(nullptr, 5)),
};

#pragma GCC diagnostic pop

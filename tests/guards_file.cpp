// Guarded entry points of the files and directories family.
#include <dirent.h>

#include "guard_cases.h"
#include "qosa.h"

// Present arguments, opened before any row runs (so no row calls the platform for them).
static DIR* const s_dir = opendir("/");
static struct dirent s_entry;
static struct dirent* s_result;
static const struct dirent* s_ent = &s_entry;
static const struct dirent* s_noEnt = nullptr;
static fpos_t s_pos;
static char s_buf[64];
static QOSA_STAT_S s_st;
static u32 s_size;

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-zero-length"
#pragma GCC diagnostic ignored "-Wformat"
#pragma GCC diagnostic ignored "-Wnonnull"

static GuardRows s_rows{
    {"QOSA_OpenDir", [] { return as_flag(QOSA_OpenDir(nullptr)); }, 0},
    {"QOSA_CloseDir", [] { return QOSA_CloseDir(nullptr); }, -1},
    {"QOSA_ReadDir", [] { return as_flag(QOSA_ReadDir(nullptr)); }, 0},
    {"QOSA_ReadDir_S_dir", [] { return QOSA_ReadDir_S(nullptr, &s_entry, &s_result); }, -1},
    {"QOSA_ReadDir_S_entry", [] { return QOSA_ReadDir_S(s_dir, nullptr, &s_result); }, -1},
    {"QOSA_ReadDir_S_result", [] { return QOSA_ReadDir_S(s_dir, &s_entry, nullptr); }, -1},
    {"QOSA_DirFd", [] { return QOSA_DirFd(nullptr); }, -1},
    {"QOSA_RewindDir", [] { return QOSA_RewindDir(nullptr), std::int64_t{0}; }, 0},
    {"QOSA_SeekDir", [] { return QOSA_SeekDir(nullptr, 3), std::int64_t{0}; }, 0},
    {"QOSA_TellDir", [] { return QOSA_TellDir(nullptr); }, -1},
    {"QOSA_ScanDir_path", [] { return QOSA_ScanDir(nullptr, nullptr, nullptr, nullptr); }, -1},
    {"QOSA_ScanDir_list", [] { return QOSA_ScanDir("/", nullptr, nullptr, nullptr); }, -1},
    {"QOSA_Alphasort_both", [] { return QOSA_Alphasort(nullptr, nullptr); }, -1},
    {"QOSA_Alphasort_first", [] { return QOSA_Alphasort(nullptr, &s_ent); }, -1},
    {"QOSA_Alphasort_second", [] { return QOSA_Alphasort(&s_ent, nullptr); }, 1},
    {"QOSA_Versionsort_both", [] { return QOSA_Versionsort(nullptr, nullptr); }, -1},
    {"QOSA_Versionsort_second", [] { return QOSA_Versionsort(&s_ent, nullptr); }, 1},
    {"QOSA_Versionsort_first_entry", [] { return QOSA_Versionsort(&s_noEnt, &s_ent); }, -1},
    {"QOSA_Alphasort_second_entry", [] { return QOSA_Alphasort(&s_ent, &s_noEnt); }, 1},
    {"QOSA_GetCwd", [] { return as_flag(QOSA_GetCwd(nullptr, 64)); }, 0},
    {"QOSA_ChDir", [] { return QOSA_ChDir(""); }, -1},
    {"QOSA_RmDir", [] { return QOSA_RmDir(nullptr); }, -1},
    {"QOSA_MkDir", [] { return QOSA_MkDir("", 0755); }, -1},
    {"QOSA_Access", [] { return QOSA_Access(nullptr, 0); }, -1},
    {"QOSA_Remove", [] { return QOSA_Remove(""); }, -1},
    {"QOSA_Rename_old", [] { return QOSA_Rename(nullptr, "/x"); }, -1},
    {"QOSA_Rename_new", [] { return QOSA_Rename("/x", ""); }, -1},
    {"QOSA_Fopen_path", [] { return as_flag(QOSA_Fopen("", "r")); }, 0},
    {"QOSA_Fopen_mode", [] { return as_flag(QOSA_Fopen("/qosa-never-made", "")); }, 0},
    {"QOSA_Fopen_nullmode", [] { return as_flag(QOSA_Fopen("/qosa-never-made", nullptr)); }, 0},
    {"QOSA_Fflush", [] { return QOSA_Fflush(nullptr); }, -1},
    {"QOSA_Fclose", [] { return QOSA_Fclose(nullptr); }, -1},
    {"QOSA_Fprintf_stream", [] { return QOSA_Fprintf(nullptr, "%d", 1); }, -1},
    {"QOSA_Fprintf_empty", [] { return QOSA_Fprintf(stdout, ""); }, -1},
    {"QOSA_Fprintf_null", [] { return QOSA_Fprintf(stdout, nullptr); }, -1},
    {"QOSA_Printf", [] { return QOSA_Printf(nullptr); }, -1},
    {"QOSA_Fgetc", [] { return QOSA_Fgetc(nullptr); }, -1},
    {"QOSA_Fputc", [] { return QOSA_Fputc('x', nullptr); }, -1},
    {"QOSA_Fgets_buf", [] { return as_flag(QOSA_Fgets(nullptr, 8, stdin)); }, 0},
    {"QOSA_Fgets_stream", [] { return as_flag(QOSA_Fgets(s_buf, sizeof s_buf, nullptr)); }, 0},
    {"QOSA_Fputs_text", [] { return QOSA_Fputs(nullptr, stdout); }, -1},
    {"QOSA_Fputs_stream", [] { return QOSA_Fputs("x", nullptr); }, -1},
    {"QOSA_Fread_buf", [] { return static_cast<std::int64_t>(QOSA_Fread(nullptr, 1, 8, stdin)); }, 0},
    {"QOSA_Fread_stream", [] { return static_cast<std::int64_t>(QOSA_Fread(s_buf, 1, 8, nullptr)); }, 0},
    {"QOSA_Fwrite_buf", [] { return static_cast<std::int64_t>(QOSA_Fwrite(nullptr, 1, 8, stdout)); }, 0},
    {"QOSA_Fwrite_stream", [] { return static_cast<std::int64_t>(QOSA_Fwrite(s_buf, 1, 8, nullptr)); }, 0},
    {"QOSA_Fseek", [] { return QOSA_Fseek(nullptr, 0, SEEK_SET); }, -1},
    {"QOSA_Ftell", [] { return QOSA_Ftell(nullptr); }, -1},
    {"QOSA_Rewind", [] { return QOSA_Rewind(nullptr), std::int64_t{0}; }, 0},
    {"QOSA_Fgetpos_stream", [] { return QOSA_Fgetpos(nullptr, &s_pos); }, -1},
    {"QOSA_Fgetpos_pos", [] { return QOSA_Fgetpos(stdin, nullptr); }, -1},
    {"QOSA_Fsetpos_stream", [] { return QOSA_Fsetpos(nullptr, &s_pos); }, -1},
    {"QOSA_Fsetpos_pos", [] { return QOSA_Fsetpos(stdin, nullptr); }, -1},
    {"QOSA_Clearerr", [] { return QOSA_Clearerr(nullptr), std::int64_t{0}; }, 0},
    {"QOSA_Feof", [] { return QOSA_Feof(nullptr); }, -1},
    {"QOSA_Ferror", [] { return QOSA_Ferror(nullptr); }, -1},
    {"QOSA_Fileno", [] { return QOSA_Fileno(nullptr); }, -1},
    {"QOSA_Open", [] { return QOSA_Open("", 0, 0); }, -1},
    {"QOSA_Creat", [] { return QOSA_Creat(nullptr, 0644); }, -1},
    {"QOSA_Read", [] { return QOSA_Read(0, nullptr, 8); }, -1},
    {"QOSA_Write", [] { return QOSA_Write(1, nullptr, 8); }, -1},
    {"QOSA_GetFileSize_size", [] { return QOSA_GetFileSize("/", nullptr); }, 0xFFFFFFFF},
    {"QOSA_GetFileSize_path", [] { return QOSA_GetFileSize("", &s_size); }, 0xFFFFFFFF},
    {"QOSA_Stat_path", [] { return QOSA_Stat(nullptr, &s_st); }, 0xFFFFFFFF},
    {"QOSA_Stat_record", [] { return QOSA_Stat("/", nullptr); }, 0xFFFFFFFF},
    {"QOSA_FStat", [] { return QOSA_FStat(0, nullptr); }, 0xFFFFFFFF},
    {"QOSA_MkDir_P_null", [] { return QOSA_MkDir_P(nullptr, 0755); }, -1},
    {"QOSA_MkDir_P_empty", [] { return QOSA_MkDir_P("", 0755); }, -1},
    {"QOSA_RelPath_path", [] { return QOSA_RelPath(nullptr, s_buf, sizeof s_buf); }, 1},
    {"QOSA_RelPath_out", [] { return QOSA_RelPath("/", nullptr, 64); }, 1},
    {"QOSA_CopyFile_source", [] { return QOSA_CopyFile("", "/qosa-never-made"); }, -1},
    {"QOSA_CopyFile_destination", [] { return QOSA_CopyFile("/etc/hostname", nullptr); }, -1},
    {"QOSA_DestoryNameList", [] { return QOSA_DestoryNameList(nullptr, 5), std::int64_t{0}; }, 0},
};

#pragma GCC diagnostic pop

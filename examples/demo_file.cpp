// Demo section: a directory tree made in one call, listed, a file copied.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "demo.h"
#include "qosa.h"

namespace {

// Lists dir (without . and ..) in version order, with each file's size.
void list(const std::string& dir, const char* indent) {
    struct dirent** names = nullptr;
    auto visible = [](const struct dirent* e) { return e->d_name[0] != '.' ? 1 : 0; };
    int n = QOSA_ScanDir(dir.c_str(), &names, visible, QOSA_Versionsort);
    for (int i = 0; i < n; ++i) {
        std::string path = dir + "/" + names[i]->d_name;
        QOSA_STAT_S st;
        if (QOSA_Stat(path.c_str(), &st) == 0 && (st.mode & 0170000) == 0040000) {
            std::printf("%s%s/\n", indent, names[i]->d_name);
            list(path, (std::string(indent) + "  ").c_str());
        } else {
            u32 size = 0;
            QOSA_GetFileSize(path.c_str(), &size);
            std::printf("%s%-10s %6u bytes\n", indent, names[i]->d_name, size);
        }
    }
    if (n >= 0) QOSA_DestoryNameList(names, static_cast<u32>(n));
}

// Removes what the demo made, deepest first.
void remove_tree(const std::string& dir) {
    struct dirent** names = nullptr;
    auto visible = [](const struct dirent* e) { return e->d_name[0] != '.' ? 1 : 0; };
    int n = QOSA_ScanDir(dir.c_str(), &names, visible, nullptr);
    for (int i = 0; i < n; ++i) {
        std::string path = dir + "/" + names[i]->d_name;
        if (QOSA_Remove(path.c_str()) != 0) remove_tree(path);
    }
    if (n >= 0) QOSA_DestoryNameList(names, static_cast<u32>(n));
    QOSA_RmDir(dir.c_str());
}

void run() {
    char base[] = "/tmp/qosa_demo_XXXXXX";
    if (mkdtemp(base) == nullptr) {
        std::printf("no temporary directory: skipped\n");
        return;
    }
    const std::string root = base;

    demo::heading("a directory tree in one call");
    const std::string tree = root + "//logs\\2024/run10/";
    std::printf("QOSA_MkDir_P(\"<tmp>//logs\\\\2024/run10/\") -> %d\n", QOSA_MkDir_P(tree.c_str(), 0755));
    QOSA_MkDir_P((root + "/logs/2024/run9").c_str(), 0755);

    demo::heading("a file written and copied");
    const std::string source = root + "/logs/2024/run9/trace.txt";
    FILE* f = QOSA_Fopen(source.c_str(), "w");
    for (int line = 1; f != nullptr && line <= 40; ++line)
        QOSA_Fprintf(f, "line %02d of the trace\n", line);
    QOSA_Fclose(f);
    const std::string copy = root + "/logs/2024/run10/trace.txt";
    std::printf("QOSA_CopyFile(run9/trace.txt, run10/trace.txt) -> %d\n", QOSA_CopyFile(source.c_str(), copy.c_str()));
    std::printf("QOSA_CopyFile(missing, ...) -> %d\n", QOSA_CopyFile((root + "/missing").c_str(), copy.c_str()));

    demo::heading("the tree, listed with QOSA_ScanDir in version order");
    list(root, "  ");
    char real[256], resolved[256];
    if (QOSA_RelPath(root.c_str(), real, sizeof real) == 0 &&
        QOSA_RelPath((root + "/logs/2024/run9/../run10/.").c_str(), resolved, sizeof resolved) == 0)
        std::printf("QOSA_RelPath(<tmp>/logs/2024/run9/../run10/.) -> <tmp>%s\n", resolved + QOSA_StrLen(real));

    remove_tree(root);
    std::printf("cleaned up: QOSA_Access(<tmp>) -> %d\n", QOSA_Access(root.c_str(), F_OK));
}

} // namespace

static demo::Section s_section{40, "files: directory trees, listings, copies", run};

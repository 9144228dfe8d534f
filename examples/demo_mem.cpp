// Demo section: tracked memory catching a one-byte overflow.
#include <cstdio>
#include <cstring>

#include "demo.h"
#include "qosa.h"

static int print(char* text, u32 len) { return static_cast<int>(std::fwrite(text, 1, len, stdout)); }

static void run() {
    QOSA_MemInitMemMange();
    std::printf("tracking is on for the rest of the process\n");

    auto* word = static_cast<char*>(QOSA_MemTypeMallocD(5, QOSA_MEM_FIXED, __LINE__, __FILE__));
    if (word == nullptr) return;
    std::memcpy(word, "hello", 5);
    char saved = word[5];
    word[5] = '!'; // one byte past the 5-byte block: the tail guard
    std::printf("wrote one byte past a 5-byte block; the scan report:");
    QOSA_MemGetMemScan(print);

    word[5] = saved; // repaired, so the block can be released
    QOSA_MemTypeFreeD(word, QOSA_MEM_FIXED, __LINE__, __FILE__);
    std::printf("guard repaired and block released:\n");
    QOSA_MemGetMemStatus(print);
}

static demo::Section s_section{60, "tracked memory: a guard word catches an overflow", run};

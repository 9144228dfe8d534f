// qosa-demo: shows each family of libqosa at work.
#include <algorithm>
#include <cstdio>
#include <vector>

#include "demo.h"

namespace {
struct Entry {
    int order;
    const char* title;
    void (*run)();
};
std::vector<Entry>& sections() {
    static std::vector<Entry> all;
    return all;
}
} // namespace

demo::Section::Section(int order, const char* title, void (*run)()) { sections().push_back({order, title, run}); }

int main() {
    std::printf("libqosa demo\n");
    auto& all = sections();
    std::stable_sort(all.begin(), all.end(), [](const Entry& a, const Entry& b) { return a.order < b.order; });
    for (const Entry& e : all) {
        std::printf("\n==== %s ====\n", e.title);
        e.run();
    }
    std::printf("\ndemo finished\n");
    return 0;
}

// qosa-demo: shows each family of libqosa at work.
#include <cstdio>

#include "demo.h"

int main() {
    std::printf("libqosa demo\n");
    using Section = void (*)();
    constexpr Section sections[] = {
        demo::core,
    };
    for (Section s : sections) s();
    std::printf("\ndemo finished\n");
    return 0;
}

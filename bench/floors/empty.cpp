// What it costs to start and end a C++ program that is linked as the gateway's are.
#include <iostream>
#include <resolv.h>

int main(int argc, char**) {
    if (argc > 1) { // never: keeps both libraries in the link
        std::cout << res_init();
    }
    return 0;
}

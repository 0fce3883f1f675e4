// floor_scan <spool>/: a pass in which no message is due. Opens, locks, reads and closes the
// recipient file of every message, and opens and closes its text.
#include "floor.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        return 2;
    }
    std::string recipients;
    Floor::eachMessage(argv[1], [&](const std::string& message) {
        const int lock = open((message + ".rmd").c_str(), O_RDWR);
        if (lock < 0 || flock(lock, LOCK_EX | LOCK_NB) != 0) {
            std::abort();
        }
        const int text = open(message.c_str(), O_RDONLY);
        Floor::readAll(lock, recipients);
        close(text);
        close(lock);
    });
}

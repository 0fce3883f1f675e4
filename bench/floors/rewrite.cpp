// floor_rewrite <spool>/ <n>: the durable rewrite of the first n recipient files.
#include "floor.h"

int main(int argc, char** argv) {
    if (argc != 3) {
        return 2;
    }
    std::vector<std::string> files;
    Floor::eachMessage(argv[1], [&](const std::string& message) {
        if (files.size() < static_cast<std::size_t>(std::atol(argv[2]))) {
            files.push_back(message + ".rmd");
        }
    });
    std::string recipients;
    for (const std::string& file : files) {
        const int lock = open(file.c_str(), O_RDWR);
        flock(lock, LOCK_EX | LOCK_NB);
        Floor::readAll(lock, recipients);
        Floor::rewrite(file, recipients);
        close(lock);
    }
}

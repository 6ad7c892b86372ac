// A program whose first thread has ended while another goes on: it looks like a zombie and is none.
// Writes its pid to the file that its argument names.

#include <pthread.h>
#include <unistd.h>

#include <fstream>
#include <thread>

int main(int /*argc*/, char** argv) {
    std::thread([pidFile = argv[1]] {
        std::ofstream(pidFile) << getpid() << '\n';
        sleep(1000);
    }).detach();
    pthread_exit(nullptr);
}

// A library to preload: makes chosen calls of the objects under test fail. Only between qxp_faults_arm(1) and
// qxp_faults_arm(0), and only calls that come from one of these objects, be it through a library that is none of them
// and does not belong to the program either: a string's memory, or what popen and opendir allocate.
//
//   QXP_FAULTS=survey              nothing fails
//   QXP_FAULTS=CALL,PLACE,TURN     the TURN-th such call at that place, 0 for every one
//   QXP_FAULTS=descriptors,N,0     N descriptors are left to the process
//   QXP_FAULTS=proc,PATH,0         what begins with PATH, as /proc, cannot be opened
//   QXP_FAULT_OBJECTS=A,B          file names of the objects; the program may be one of them
//   QXP_FAULT_REPORT=FILE          gets a line for each place of a survey, "CALL PLACE COUNT", or for each fault
//
// A place is the ten innermost return addresses within the objects: "object+offset/object+offset", in hexadecimal.

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <unwind.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

namespace {

constexpr size_t kFrames = 10;
using Place = std::array<uintptr_t, kFrames>;  // (object + 1) << 48 | offset; 0: none

struct Object {
    char name[64];
    uintptr_t base, begin, end;
};
struct Count {
    const char* call;
    Place place;
    unsigned turns;
};

// Set while nothing is armed.
Object objects[8];
size_t object_count = 0;
uintptr_t program_begin = 0, program_end = 0;
char wanted_call[32], wanted_place[512], report_path[512];
unsigned wanted_turn = 0;

std::atomic<bool> armed{false};
std::atomic<unsigned> fired{0};
std::mutex count_lock;
Count counts[1 << 14];  // guarded by count_lock; open addressing
thread_local bool inside __attribute__((tls_model("initial-exec"))) = false;

struct Inside {
    bool before = inside;
    Inside() { inside = true; }
    ~Inside() { inside = before; }
};

struct Walk {
    Place place{};
    size_t found = 0, steps = 0;
};

_Unwind_Reason_Code Step(_Unwind_Context* context, void* data) {
    auto& walk = *static_cast<Walk*>(data);
    const uintptr_t address = _Unwind_GetIP(context);
    for (size_t i = 0; i < object_count; ++i) {
        if (address >= objects[i].begin && address < objects[i].end) {
            walk.place[walk.found] = (i + 1) << 48 | (address - objects[i].base);
            return ++walk.found == kFrames ? _URC_END_OF_STACK : _URC_NO_REASON;
        }
    }
    const bool of_program = address >= program_begin && address < program_end;
    return of_program || ++walk.steps == 64 ? _URC_END_OF_STACK : _URC_NO_REASON;
}

void PrintPlace(char* text, size_t size, const Place& place) {
    size_t used = 0;
    text[0] = '\0';
    for (const uintptr_t frame : place) {
        if (frame != 0 && used < size) {
            used += static_cast<size_t>(snprintf(text + used, size - used, "%s%s+%lx", used ? "/" : "",
                                                 objects[(frame >> 48) - 1].name, frame & 0xffffffffffff));
        }
    }
}

template <typename Function>
Function Next(Function& real, const char* name) {
    if (real == nullptr) {
        real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
    }
    return real;
}
// Calls the function that this library stands before.
#define NEXT(name)                               \
    ([] {                                        \
        static decltype(&::name) real = nullptr; \
        return Next(real, #name);                \
    }())

void Report(const char* call, const Place& place, unsigned turns) {
    char text[512], line[640];
    PrintPlace(text, sizeof text, place);
    const int length = snprintf(line, sizeof line, "%s %s %u\n", call, text, turns);
    const int file = static_cast<int>(syscall(SYS_open, report_path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    if (file >= 0) {
        static_cast<void>(NEXT(write)(file, line, static_cast<size_t>(length)) == length);
        close(file);
    }
}

unsigned NextTurn(const char* call, const Place& place) {
    const std::lock_guard guard(count_lock);
    for (size_t at = (place[0] * 31 + place[1] * 7 + place[2] * 3 + place[3] + static_cast<unsigned char>(call[0])) %
                     std::size(counts);
         ; at = (at + 1) % std::size(counts)) {
        Count& count = counts[at];
        if (count.call == nullptr) {
            count = {call, place, 0};
        }
        if (count.call == call && count.place == place) {
            return ++count.turns;
        }
    }
}

// The error that this call is to fail with; 0 when it is not to fail.
int Fault(const char* call, int error, const char* path = nullptr) {
    if (!armed || inside) {
        return 0;
    }
    const Inside guard;
    const int before = errno;
    Walk walk;
    _Unwind_Backtrace(Step, &walk);
    bool fails = false;
    if (walk.found != 0) {
        const unsigned turn = NextTurn(call, walk.place);
        if (path != nullptr && strcmp(wanted_call, "proc") == 0) {
            fails = strncmp(path, wanted_place, strlen(wanted_place)) == 0;
            error = ENOENT;
        } else if (strcmp(call, wanted_call) == 0 && (wanted_turn == 0 || turn == wanted_turn)) {
            char text[512];
            PrintPlace(text, sizeof text, walk.place);
            fails = strcmp(text, wanted_place) == 0;
        }
        if (fails && ++fired < 5) {
            Report("failed", walk.place, turn);
        }
    }
    errno = fails ? error : before;
    return fails ? error : 0;
}

int FindObject(dl_phdr_info* info, size_t, void*) {
    const bool is_program = info->dlpi_name[0] == '\0';
    const char* slash = strrchr(info->dlpi_name, '/');
    const char* name = is_program ? program_invocation_short_name : slash ? slash + 1 : info->dlpi_name;
    uintptr_t begin = UINTPTR_MAX, end = 0;
    for (const ElfW(Phdr)* part = info->dlpi_phdr; part != info->dlpi_phdr + info->dlpi_phnum; ++part) {
        if (part->p_type != PT_LOAD) {
            continue;
        }
        begin = std::min<uintptr_t>(begin, info->dlpi_addr + part->p_vaddr);
        end = std::max<uintptr_t>(end, info->dlpi_addr + part->p_vaddr + part->p_memsz);
    }
    if (is_program) {
        program_begin = begin, program_end = end;
    }
    const char* names = getenv("QXP_FAULT_OBJECTS");
    const char* at = names ? strstr(names, name) : nullptr;
    const size_t length = strlen(name);
    if (at && (at[length] == ',' || at[length] == '\0') && object_count < std::size(objects)) {
        Object& object = objects[object_count++];
        object = {{}, info->dlpi_addr, begin, end};
        strncpy(object.name, name, sizeof object.name - 1);
    }
    return 0;
}

// Leaves only so many descriptors: lower free numbers are filled, higher ones forbidden. The limit is put back by
// Release. Children inherit the limit and not what fills the numbers.
rlimit limit_before;
std::array<int, 256> fillers;
size_t filler_count = 0;

void LeaveDescriptors(unsigned count) {
    int highest = 0;
    for (int number = 0; number < 256; ++number) {
        highest = fcntl(number, F_GETFD) >= 0 ? number : highest;
    }
    for (int number = 0; number < highest; ++number) {
        if (fcntl(number, F_GETFD) < 0) {
            fillers[filler_count++] = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, number);
        }
    }
    getrlimit(RLIMIT_NOFILE, &limit_before);
    const rlimit limit{static_cast<rlim_t>(highest) + 1 + count, limit_before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &limit);
    fired = 1;
}

void Release() {
    setrlimit(RLIMIT_NOFILE, &limit_before);
    while (filler_count > 0) {
        close(fillers[--filler_count]);
    }
}

void* Allocate(void* (*real)(size_t), size_t size) {
    if (Fault("new", ENOMEM)) {
        return nullptr;
    }
    const Inside guard;  // what it is made of is the same call
    return real(size);
}

void* AllocateOrThrow(void* (*real)(size_t), size_t size) {
    void* block = Allocate(real, size);
    return block ? block : throw std::bad_alloc();
}

}  // namespace

extern "C" {

// 1: the calls count from now on; 0: no longer. Returns how many have failed, or are made fail by a shortage.
__attribute__((visibility("default"))) unsigned qxp_faults_arm(int on) {
    const Inside guard;
    if (on) {
        unsetenv("LD_PRELOAD");  // the scripts are not under test
        const char* faults = getenv("QXP_FAULTS");
        // NOLINTNEXTLINE(cert-err34-c): the driver's own numbers
        sscanf(faults ? faults : "", "%31[^,],%511[^,],%u", wanted_call, wanted_place, &wanted_turn);
        snprintf(report_path, sizeof report_path, "%s", getenv("QXP_FAULT_REPORT"));
        dl_iterate_phdr(FindObject, nullptr);
        if (strcmp(wanted_call, "descriptors") == 0) {
            LeaveDescriptors(static_cast<unsigned>(strtoul(wanted_place, nullptr, 10)));
        }
        armed = true;
        return 0;
    }
    armed = false;
    if (strcmp(wanted_call, "descriptors") == 0) {
        Release();
    }
    if (strcmp(wanted_call, "survey") == 0) {
        for (const Count& count : counts) {
            if (count.call) {
                Report(count.call, count.place, count.turns);
            }
        }
    }
    return fired;
}

// Types and parameter lists cannot stand in parentheses; the checker does not know va_start in a macro.
// NOLINTBEGIN(bugprone-macro-parentheses,clang-analyzer-valist.Uninitialized)

#define EXPORT __attribute__((visibility("default")))
// NAME fails as CALL, with a result and an error.
#define INTERPOSE(name, call, failure, error, result, parameters, arguments, ...) \
    EXPORT result name parameters __VA_ARGS__ {                                   \
        return Fault(call, error) ? failure : NEXT(name) arguments;               \
    }
// The same of what is given a path.
#define INTERPOSE_PATH(name, call, failure, error, result, parameters, arguments, ...) \
    EXPORT result name parameters __VA_ARGS__ {                                        \
        return Fault(call, error, path) ? failure : NEXT(name) arguments;              \
    }
// The optional mode is passed on whether it is there or not, as the C library itself does.
#define INTERPOSE_OPEN(name, parameters, arguments)                                     \
    EXPORT int name parameters {                                                        \
        va_list rest;                                                                   \
        va_start(rest, flags);                                                          \
        const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) ? va_arg(rest, mode_t) : 0; \
        va_end(rest);                                                                   \
        return Fault("open", EMFILE, path) ? -1 : NEXT(name) arguments;                 \
    }

INTERPOSE(malloc, "malloc", nullptr, ENOMEM, void*, (size_t size), (size), noexcept)
INTERPOSE(calloc, "malloc", nullptr, ENOMEM, void*, (size_t count, size_t size), (count, size), noexcept)
INTERPOSE(realloc, "malloc", nullptr, ENOMEM, void*, (void* block, size_t size), (block, size), noexcept)
INTERPOSE_OPEN(open, (const char* path, int flags, ...), (path, flags, mode))
INTERPOSE_OPEN(open64, (const char* path, int flags, ...), (path, flags, mode))
INTERPOSE_OPEN(openat, (int directory, const char* path, int flags, ...), (directory, path, flags, mode))
INTERPOSE_OPEN(openat64, (int directory, const char* path, int flags, ...), (directory, path, flags, mode))
INTERPOSE_PATH(fopen, "fopen", nullptr, EMFILE, FILE*, (const char* path, const char* mode), (path, mode))
INTERPOSE_PATH(fopen64, "fopen", nullptr, EMFILE, FILE*, (const char* path, const char* mode), (path, mode))
INTERPOSE_PATH(opendir, "opendir", nullptr, EMFILE, DIR*, (const char* path), (path))
INTERPOSE_PATH(readlink, "readlink", -1, EACCES, ssize_t, (const char* path, char* target, size_t size),
               (path, target, size), noexcept)
INTERPOSE_PATH(mkdir, "mkdir", -1, ENOSPC, int, (const char* path, mode_t mode), (path, mode), noexcept)
INTERPOSE(getdents64, "getdents64", -1, ENOMEM, ssize_t, (int directory, void* buffer, size_t size),
          (directory, buffer, size), noexcept)
INTERPOSE(popen, "popen", nullptr, EAGAIN, FILE*, (const char* command, const char* mode), (command, mode))
INTERPOSE(pthread_create, "pthread_create", EAGAIN, EAGAIN, int,
          (pthread_t * thread, const pthread_attr_t* attributes, void* (*body)(void*), void* argument),
          (thread, attributes, body, argument), noexcept)
INTERPOSE(eventfd, "eventfd", -1, EMFILE, int, (unsigned count, int flags), (count, flags), noexcept)
INTERPOSE(read, "read", -1, EIO, ssize_t, (int file, void* data, size_t size), (file, data, size))
INTERPOSE(write, "write", -1, ENOSPC, ssize_t, (int file, const void* data, size_t size), (file, data, size))
INTERPOSE(pwrite64, "write", -1, ENOSPC, ssize_t, (int file, const void* data, size_t size, off64_t at),
          (file, data, size, at))
INTERPOSE(fsync, "fsync", -1, EIO, int, (int file), (file))
INTERPOSE(fdatasync, "fsync", -1, EIO, int, (int file), (file))
INTERPOSE(ftruncate64, "ftruncate", -1, EIO, int, (int file, off64_t size), (file, size), noexcept)
// NOLINTEND(bugprone-macro-parentheses,clang-analyzer-valist.Uninitialized)

// A disk that becomes full in the middle.
EXPORT size_t fwrite(const void* data, size_t size, size_t count, FILE* stream) {
    const int error = Fault("fwrite", ENOSPC);
    const size_t written = NEXT(fwrite)(data, size, error ? count / 2 : count, stream);
    errno = error ? error : errno;
    return written;
}

EXPORT long syscall(long number, ...) noexcept {
    va_list rest;
    va_start(rest, number);
    long arguments[6];
    for (long& argument : arguments) {
        argument = va_arg(rest, long);
    }
    va_end(rest);
    if (number == SYS_pidfd_open && Fault("pidfd_open", EMFILE)) {
        return -1;
    }
    return NEXT(syscall)(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4], arguments[5]);
}
}

// The four that the objects call, by the names that the linker knows: what stands behind them is asked for by name.
static void* (*next_new)(size_t) = nullptr;
static void* (*next_new_array)(size_t) = nullptr;

// NOLINTBEGIN(cert-dcl54-cpp): what frees is the sanitizer's or the C library's own
EXPORT void* operator new(size_t size) {
    return AllocateOrThrow(Next(next_new, "_Znwm"), size);
}
EXPORT void* operator new[](size_t size) {
    return AllocateOrThrow(Next(next_new_array, "_Znam"), size);
}
EXPORT void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return Allocate(Next(next_new, "_Znwm"), size);
}
EXPORT void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    return Allocate(Next(next_new_array, "_Znam"), size);
}
// NOLINTEND(cert-dcl54-cpp)

// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The probe. It writes down what the system knows of the process's signals: when the process
// begins, when it ends, and whenever it is told to. With SORVANE_HOSTS_HELPER set it has a thread
// that is told through a pipe, for hosts that can't call a function.

#include "probe.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "bash_builtin.h"

namespace {

constexpr int highestSignal = 64;
constexpr std::size_t lineLength = 512;

// As the kernel has it; the C library's own hides the restorer.
struct KernelAction {
    void* handler;
    unsigned long flags;
    void* restorer;
    std::uint64_t mask;
};

char folder[256];
char mode[16] = "bare";
bool inHost = false;
void* plugin = nullptr;
unsigned int noCounters[highestSignal + 1];
unsigned int* counters = noCounters;

// Where a run is alike, an address differs by where its module has been loaded.
void nameAddress(void* address, char* name, std::size_t size) {
    Dl_info module;
    if (dladdr(address, &module) != 0 && module.dli_fname != nullptr) {
        const char* const slash = std::strrchr(module.dli_fname, '/');
        const char* const file = slash == nullptr ? module.dli_fname : slash + 1;
        // The program may have written something else over its name.
        const bool program = module.dli_fname == program_invocation_name;
        std::snprintf(name, size, "%s+0x%" PRIxPTR, program ? "program" : file,
                      reinterpret_cast<std::uintptr_t>(address) -
                          reinterpret_cast<std::uintptr_t>(module.dli_fbase));
    } else {
        std::snprintf(name, size, "%s", address == nullptr ? "none" : "unnamed");
    }
}

void writeAction(std::FILE* file, int signalNumber) {
    KernelAction action = {};
    if (syscall(SYS_rt_sigaction, signalNumber, nullptr, &action, sizeof(action.mask)) != 0) {
        return;
    }
    char handler[lineLength];
    char restorer[lineLength];
    if (reinterpret_cast<std::uintptr_t>(action.handler) <= 1) {
        std::snprintf(handler, sizeof(handler), "%s",
                      action.handler == nullptr ? "default" : "ignored");
    } else {
        nameAddress(action.handler, handler, sizeof(handler));
    }
    nameAddress(action.restorer, restorer, sizeof(restorer));
    std::fprintf(file, "%d %s flags=0x%lx mask=0x%" PRIx64 " restorer=%s\n", signalNumber, handler,
                 action.flags, action.mask, restorer);
}

void writeMasks(std::FILE* file) {
    std::FILE* const status = std::fopen("/proc/self/status", "re");
    if (status == nullptr) {
        return;
    }
    char line[lineLength];
    while (std::fgets(line, sizeof(line), status) != nullptr) {
        if (std::strncmp(line, "Sig", 3) == 0 && std::strncmp(line, "SigQ", 4) != 0 &&
            std::strncmp(line, "SigPnd", 6) != 0) {
            std::fputs(line, file);
        }
    }
    std::fclose(status);
}

void writeProgram(std::FILE* file) {
    char path[lineLength] = "";
    const ssize_t length = readlink("/proc/self/exe", path, sizeof(path) - 1);
    const char* const slash = length > 0 ? std::strrchr(path, '/') : nullptr;
    std::fprintf(file, "program %s\n", slash == nullptr ? "unknown" : slash + 1);
}

void pathOf(char* path, std::size_t size, const char* name) {
    std::snprintf(path, size, "%s/%s", folder, name);
}

// The answer goes back as soon as what was asked for is done.
void* helpWhenTold(void* pipes) {
    const int* const pipe = static_cast<const int*>(pipes);
    char command[lineLength];
    std::size_t length = 0;
    while (read(pipe[0], command + length, 1) == 1) {
        if (command[length] != '\n') {
            length = length < sizeof(command) - 2 ? length + 1 : length;
            continue;
        }
        command[length] = '\0';
        length = 0;
        if (std::strcmp(command, "load") == 0) {
            hosts_load();
        } else if (std::strcmp(command, "unload") == 0) {
            hosts_unload();
        } else if (std::strncmp(command, "snapshot ", 9) == 0) {
            hosts_snapshot(command + 9);
        }
        if (write(pipe[1], "done\n", 5) != 5) {
            break;
        }
    }
    return nullptr;
}

// Its thread takes no signal away from the host's.
void startHelper() {
    static int pipes[2];
    const char* const names[2] = {"tell", "answer"};
    for (int end = 0; end < 2; ++end) {
        char path[lineLength];
        pathOf(path, sizeof(path), names[end]);
        pipes[end] = open(path, O_RDWR | O_CLOEXEC);
        // Hosts count on the low numbers.
        const int high = fcntl(pipes[end], F_DUPFD_CLOEXEC, 200);
        close(pipes[end]);
        pipes[end] = high;
    }
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &before);
    pthread_t thread;
    if (pthread_create(&thread, nullptr, &helpWhenTold, pipes) == 0) {
        pthread_detach(thread);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

// With its first thread the C library installs an action of its own. A plug-in may have threads,
// and so every run has had one.
void haveHadThread() {
    pthread_t thread;
    const auto nothing = [](void*) -> void* { return nullptr; };
    if (pthread_create(&thread, nullptr, nothing, nullptr) == 0) {
        pthread_join(thread, nullptr);
    }
}

void mapCounters() {
    char path[lineLength];
    pathOf(path, sizeof(path), "counters");
    const int file = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (file < 0) {
        return;
    }
    if (ftruncate(file, sizeof(noCounters)) == 0) {
        void* const memory =
            mmap(nullptr, sizeof(noCounters), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        if (memory != MAP_FAILED) {
            counters = static_cast<unsigned int*>(memory);
        }
    }
    close(file);
}

// Whoever makes this file is the host: no other process has been started before.
bool claim() {
    char path[lineLength];
    pathOf(path, sizeof(path), "claimed");
    const int file = open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (file < 0) {
        return false;
    }
    close(file);
    return true;
}

// A process may start another program in its own place, and then there are several.
void takeFirstSnapshot() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    char name[64];
    std::snprintf(name, sizeof(name), "start-%010ld%09ld", static_cast<long>(now.tv_sec),
                  now.tv_nsec);
    hosts_snapshot(name);
}

__attribute__((constructor)) void begin() {
    const char* const itsFolder = std::getenv("SORVANE_HOSTS_FOLDER");
    const char* const itsMode = std::getenv("SORVANE_HOSTS_MODE");
    if (itsFolder == nullptr || itsMode == nullptr) {
        return;
    }
    std::snprintf(folder, sizeof(folder), "%s", itsFolder);
    std::snprintf(mode, sizeof(mode), "%s", itsMode);
    takeFirstSnapshot();
    inHost = claim();
    if (inHost) {
        haveHadThread();
        mapCounters();
        if (std::getenv("SORVANE_HOSTS_HELPER") != nullptr) {
            startHelper();
        }
    }
}

// The plug-in is linked against the probe, and therefore ends before it.
__attribute__((destructor)) void end() {
    hosts_snapshot("end");
}

}  // namespace

bool hosts_process() {
    return inHost;
}

const char* hosts_mode() {
    return mode;
}

unsigned int* hosts_counters() {
    return counters;
}

void hosts_snapshot(const char* name) {
    if (folder[0] == '\0' || name == nullptr) {
        return;
    }
    char path[lineLength];
    std::snprintf(path, sizeof(path), "%s/%s.%d.snapshot", folder, name, getpid());
    std::FILE* const file = std::fopen(path, "we");
    if (file == nullptr) {
        return;
    }
    writeProgram(file);
    for (int signalNumber = 1; signalNumber <= highestSignal; ++signalNumber) {
        writeAction(file, signalNumber);
    }
    writeMasks(file);
    std::fclose(file);
}

void hosts_load() {
    const char* const path = std::getenv("SORVANE_HOSTS_LOAD");
    if (inHost && path != nullptr && plugin == nullptr) {
        plugin = dlopen(path, RTLD_NOW);
        if (plugin == nullptr) {
            std::fprintf(stderr, "the plug-in can't be loaded: %s\n", dlerror());
            std::abort();
        }
    }
}

void hosts_unload() {
    if (plugin != nullptr) {
        dlclose(plugin);
        plugin = nullptr;
    }
}

// ---- As a builtin of bash ----------------------------------------------------------------------

namespace {

int bashSnapshot(BashWords* words) {
    if (words != nullptr) {
        hosts_snapshot(words->word->word);
    }
    return 0;
}

const char* const bashHelp[] = {"Writes a snapshot under a name.", nullptr};

}  // namespace

extern "C" {
BashBuiltin hosts_snapshot_struct = {"hosts_snapshot", &bashSnapshot,         1,
                                     bashHelp,         "hosts_snapshot NAME", nullptr};
}

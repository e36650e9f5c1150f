#include "fuzz/last_input.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr std::size_t roomForInput = std::size_t{1} << 20;

[[noreturn]] void fail(const char* call) {
    std::perror(call);
    std::exit(2);
}

// Mapped, because a write for each input would take longer than playing it.
class KeptInput {
public:
    explicit KeptInput(const char* path)
        : m_file(open(path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644)) {
        if (m_file < 0 || ftruncate(m_file, roomForInput) != 0) {
            fail(path);
        }
        void* const room =
            mmap(nullptr, roomForInput, PROT_READ | PROT_WRITE, MAP_SHARED, m_file, 0);
        if (room == MAP_FAILED) {
            fail("mmap for the last input");
        }
        m_room = static_cast<unsigned char*>(room);
    }
    KeptInput(const KeptInput&) = delete;
    KeptInput& operator=(const KeptInput&) = delete;

    // Its size comes before it, in four bytes, the lowest first.
    void keep(const std::uint8_t* data, std::size_t size) const {
        for (unsigned int i = 0; i < 4; ++i) {
            m_room[i] = static_cast<unsigned char>(size >> (8 * i));
        }
        std::memcpy(m_room + 4, data, size < roomForInput - 4 ? size : roomForInput - 4);
    }

private:
    int m_file;
    unsigned char* m_room = nullptr;
};

}  // namespace

void keepLastInput(const std::uint8_t* data, std::size_t size) {
    static const char* const path = std::getenv("SORVANE_FUZZ_LAST_INPUT");
    if (path == nullptr || size == 0) {
        return;
    }
    static const KeptInput kept(path);
    kept.keep(data, size);
}

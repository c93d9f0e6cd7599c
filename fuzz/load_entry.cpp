// The load fuzzer's entry, shared by the libFuzzer target and the replay
// driver. The readers need a path to a seekable file, so every input goes
// into one scratch file that lives as long as the process: an anonymous
// memory file reached through /proc/self/fd when the system has them,
// else a file in the temporary folder named after the process.
#include "load_entry.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>

#include "frame/globals.h"
#include "frame/load.h"
#include "frame/readerops.h"

#ifndef ZEMACAD_FUZZ_INIT_FILE
#error "ZEMACAD_FUZZ_INIT_FILE must name the build's ksinit.dat"
#endif

namespace {

struct Scratch {
    int fd = -1;
    std::string path;
    bool unlinkAtEnd = false;
};

Scratch scratch;
bool toolkitUp = false;

[[noreturn]] void fail(const char* what)
{
    std::fprintf(stderr, "zemacadFuzzLoad: %s\n", what);
    std::abort();
}

void openScratch()
{
#ifdef MFD_CLOEXEC
    int fd = memfd_create("zemacad-fuzz", MFD_CLOEXEC);
    if (fd >= 0) {
        scratch.fd = fd;
        scratch.path = "/proc/self/fd/" + std::to_string(fd);
        return;
    }
#endif
    const char* tmp = std::getenv("TMPDIR");
    std::string dir = (tmp != nullptr && *tmp != '\0') ? tmp : "/tmp";
    scratch.path = dir + "/zemacad-fuzz-" + std::to_string(getpid()) + ".bin";
    scratch.fd = ::open(scratch.path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (scratch.fd < 0)
        fail("cannot make the scratch file");
    scratch.unlinkAtEnd = true;
}

// Replaces the scratch file's content with the input.
void fillScratch(const uint8_t* data, size_t size)
{
    if (ftruncate(scratch.fd, 0) != 0)
        fail("cannot empty the scratch file");
    size_t done = 0;
    while (done < size) {
        ssize_t n = pwrite(scratch.fd, data + done, size - done, static_cast<off_t>(done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            fail("cannot write the scratch file");
        done += static_cast<size_t>(n);
    }
}

void bringUp()
{
    if (scratch.fd < 0)
        openScratch();
    int16_t error = 0;
    if (ksInit(ZEMACAD_FUZZ_INIT_FILE, 0, &error) == 0) {
        std::fprintf(stderr, "zemacadFuzzLoad: init from %s failed with error %d\n",
                     ZEMACAD_FUZZ_INIT_FILE, error);
        std::abort();
    }
    ksInstallDxfReader();
    ksInstallDwgReader();
    toolkitUp = true;
    std::atexit(zemacadFuzzShutdown);
}

}  // namespace

void zemacadFuzzStart()
{
    if (!toolkitUp)
        bringUp();
}

int zemacadFuzzLoad(const uint8_t* data, size_t size)
{
    zemacadFuzzStart();

    // Detection on the bytes themselves, as a host does before choosing a
    // path; it looks at no more than its own limit.
    ksSniff sniff = ksSniffBytes(std::span<const uint8_t>(data, size));
    (void)sniff;

    fillScratch(data, size);
    ksSetError(0);
    ksFcb* fcb = ksLoadDrawing(scratch.path.c_str(), 1, 0);
    if (fcb != nullptr)
        ksCloseDrawing(fcb);
    return 0;
}

void zemacadFuzzShutdown()
{
    if (toolkitUp) {
        ksShutdown();
        toolkitUp = false;
    }
    if (scratch.fd >= 0) {
        ::close(scratch.fd);
        scratch.fd = -1;
        if (scratch.unlinkAtEnd)
            ::unlink(scratch.path.c_str());
    }
}

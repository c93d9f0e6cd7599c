// zemacadconv: converts one drawing to DWG or DXF.
//
//   zemacadconv infilename mode outfilename [-v NN]
//
// The outcome is the exit status; messages appear on standard output only
// while ZEMACAD_DEBUG exists.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "frame/globals.h"
#include "frame/load.h"
#include "frame/readerops.h"
#include "frame/save.h"

namespace {

constexpr int kStatusDone = 0;
constexpr int kStatusNoSystemDirectory = 4;
constexpr int kStatusInitOrLoadFailed = 9;
constexpr int kStatusUsageOrSaveFailed = 100;

constexpr char kApplicationName[] = "ZEM";
constexpr char kSeparator = '/';

enum Mode { kModeMalformed = -1, kModeDwg = 0, kModeDxf = 1, kModeUnsupported = 2 };

// Formats a message into 500 bytes and writes it with one more newline,
// only while ZEMACAD_DEBUG exists (with any value, the empty one too).
void debugPrint(const char* format, ...)
{
    if (std::getenv("ZEMACAD_DEBUG") == nullptr)
        return;
    char buffer[500];
    va_list args;
    va_start(args, format);
    std::vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    std::printf("%s\n", buffer);
}

// The system directory from <APP>_DIRECTORY; empty when unset or empty.
std::string systemDirectory()
{
    char variable[64];
    std::snprintf(variable, sizeof variable, "%s_DIRECTORY", kApplicationName);
    const char* value = std::getenv(variable);
    return value ? std::string(value) : std::string();
}

struct Arguments {
    bool hasVersionSwitch = false;
    std::string input;
    const char* mode = "";
    const char* output = "";
};

// The input name may arrive split at blanks: a first argument that starts
// with a single quote is joined with the following ones until a closing
// quote, never taking the mode, the output name or the version switch.
Arguments parseArguments(int argc, char** argv)
{
    Arguments a;
    a.hasVersionSwitch = std::strcmp(argv[argc - 2], "-v") == 0;
    int index = 2;
    if (argv[1][0] != '\'') {
        a.input = argv[1];
    } else {
        a.input = argv[1] + 1;
        int limit = argc - (a.hasVersionSwitch ? 4 : 2);
        while (index < limit && (a.input.empty() || a.input.back() != '\'')) {
            a.input += ' ';
            a.input += argv[index];
            ++index;
        }
        // The closing quote goes; a name that never found one loses its
        // last real character instead.
        if (!a.input.empty())
            a.input.pop_back();
    }
    a.mode = argv[index];
    a.output = argv[index + 1];
    return a;
}

Mode readMode(const char* mode)
{
    if (std::strlen(mode) != 2 || mode[0] != '-')
        return kModeMalformed;
    switch (mode[1]) {
    case 'w':
    case 'W':
        return kModeDwg;
    case 'x':
    case 'X':
        return kModeDxf;
    default:
        debugPrint("Wrong conversion type input");
        return kModeUnsupported;
    }
}

int16_t versionFromSwitch(const char* number)
{
    switch (std::atoi(number)) {
    case 12:
        return ksAC1009;
    case 14:
        return ksAC1014;
    default:
        return ksAC1012;
    }
}

int convert(const Arguments& args, Mode mode, int16_t version)
{
    ksInstallDxfReader();
    ksInstallDwgReader();
    ksFcb* fcb = ksLoadDrawing(args.input.c_str(), 1, 0);
    if (fcb == nullptr) {
        int16_t error = ksErrorNumber();
        debugPrint("Error opening file %s\n", args.input.c_str());
        debugPrint("error code is %d: %s\n", error, ksErrorMessage(error));
        return kStatusInitOrLoadFailed;
    }
    int result;
    switch (mode) {
    case kModeDwg:
        result = ksSaveDrawing(fcb, args.output, 0, version, 0, 0, 0, 0) ? kStatusDone : kStatusUsageOrSaveFailed;
        break;
    case kModeDxf:
        result = ksSaveDrawing(fcb, args.output, 1, ksAC1014, 0, 6, 1, 0) ? kStatusDone : kStatusUsageOrSaveFailed;
        break;
    default:
        debugPrint("Conversion mode not supported\n");
        result = version;
        break;
    }
    ksCloseDrawing(fcb);
    return result;
}

}  // namespace

int main(int argc, char** argv)
{
    int status = kStatusDone;
    int16_t version = ksAC1012;
    if (argc < 4) {
        debugPrint("usage: zemacadconv infilename mode outfilename\n");
        return kStatusUsageOrSaveFailed;
    }

    std::string directory = systemDirectory();
    if (directory.empty()) {
        std::fputs("system directory not found, (check configuration)\n", stderr);
        return kStatusNoSystemDirectory;
    }
    char initPath[1024];
    std::snprintf(initPath, sizeof initPath, "%s%ctext%c%s%c%s", directory.c_str(), kSeparator, kSeparator,
                  "kestrel_dat", kSeparator, "ksinit.dat");

    int16_t initError = 0;
    if (!ksInit(initPath, 0, &initError)) {
        debugPrint("Unable to initialize KESTREL\n");
        debugPrint("error is %d: %s\n", initError, ksErrorMessage(initError));
        if (initError == 182)
            debugPrint("try moving ksinit.dat to the current directory\n");
        status = kStatusInitOrLoadFailed;
    }

    Arguments args = parseArguments(argc, argv);
    if (status == kStatusDone) {
        Mode mode = readMode(args.mode);
        if (mode != kModeMalformed) {
            if (args.hasVersionSwitch && mode == kModeDwg)
                version = versionFromSwitch(argv[argc - 1]);
            status = convert(args, mode, version);
        }
    }

    // Status 9: the toolkit never came up, or the load has torn its
    // drawing down already.
    if (status != kStatusInitOrLoadFailed)
        ksShutdown();
    return status;
}

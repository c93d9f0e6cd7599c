#include "support/fixtures.h"
#include "support/support.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>

extern char** environ;

namespace zt {

fs::path sourceDir() { return ZEMACAD_SOURCE_DIR; }
fs::path programPath() { return ZEMACAD_PROGRAM; }
fs::path systemDir() { return ZEMACAD_SYSTEM_DIR; }
fs::path initFile() { return ZEMACAD_INIT_FILE; }

// ---- temporary folders ----------------------------------------------------

TempDir::TempDir()
{
    std::string name = "zemacad";
    if (const auto* info = ::testing::UnitTest::GetInstance()->current_test_info())
        name += std::string("-") + info->test_suite_name() + "." + info->name();
    for (char& c : name)
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '.' && c != '_')
            c = '_';
    if (name.size() > 120)
        name.resize(120);
    std::string pattern = (fs::temp_directory_path() / (name + "-XXXXXX")).string();
    if (mkdtemp(pattern.data()) == nullptr)
        throw std::runtime_error("can't make a temporary folder " + pattern);
    path_ = pattern;
}

TempDir::~TempDir()
{
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

std::vector<std::string> TempDir::list() const
{
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(path_))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

// ---- running a program ----------------------------------------------------

RunResult runCommand(const fs::path& program, const std::vector<std::string>& args,
                     const std::vector<EnvChange>& env, const fs::path& workDir,
                     int timeoutSeconds)
{
    // Everything the child needs is built before the fork.
    std::map<std::string, std::string> vars;
    for (char** e = environ; *e != nullptr; ++e) {
        std::string_view entry(*e);
        vars.emplace(std::string(entry.substr(0, entry.find('='))), *e);
    }
    for (const auto& change : env) {
        if (change.value)
            vars[change.name] = change.name + "=" + *change.value;
        else
            vars.erase(change.name);
    }
    std::vector<char*> envp;
    for (auto& [name, entry] : vars)
        envp.push_back(entry.data());
    envp.push_back(nullptr);

    std::string programText = program.string();
    std::vector<std::string> argText{programText};
    argText.insert(argText.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& a : argText)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    std::string dir = workDir.string();

    int outPipe[2], errPipe[2];
    if (pipe2(outPipe, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe failed");
    if (pipe2(errPipe, O_CLOEXEC) != 0) {
        close(outPipe[0]);
        close(outPipe[1]);
        throw std::runtime_error("pipe failed");
    }
    pid_t pid = fork();
    if (pid < 0)
        throw std::runtime_error("fork failed");
    if (pid == 0) {
        if ((!dir.empty() && chdir(dir.c_str()) != 0) || dup2(outPipe[1], 1) < 0 ||
            dup2(errPipe[1], 2) < 0)
            _exit(127);
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    close(outPipe[1]);
    close(errPipe[1]);

    RunResult result;
    pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
    std::string* sinks[2] = {&result.out, &result.err};
    int live = 2;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeoutSeconds);
    while (live > 0) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            result.timedOut = true;
            kill(pid, SIGKILL);
            break;
        }
        int ready = poll(fds, 2, static_cast<int>(left.count()));
        if (ready < 0 && errno != EINTR)
            break;
        for (int i = 0; i < 2 && ready > 0; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0)
                continue;
            char chunk[4096];
            ssize_t got = read(fds[i].fd, chunk, sizeof chunk);
            if (got > 0) {
                sinks[i]->append(chunk, static_cast<size_t>(got));
            } else if (got == 0 || errno != EINTR) {
                close(fds[i].fd);
                fds[i].fd = -1;
                --live;
            }
        }
    }
    for (auto& p : fds)
        if (p.fd >= 0)
            close(p.fd);
    int wstatus = 0;
    while (waitpid(pid, &wstatus, 0) < 0 && errno == EINTR) {
    }
    result.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus)
                    : WIFSIGNALED(wstatus) ? -WTERMSIG(wstatus)
                                           : -1;
    return result;
}

RunResult runConverter(const std::vector<std::string>& args, const std::vector<EnvChange>& env,
                       const fs::path& workDir)
{
    std::vector<EnvChange> all{{"ZEM_DIRECTORY", systemDir().string()},
                               {"ZEMACAD_DEBUG", std::nullopt}};
    all.insert(all.end(), env.begin(), env.end());
    return runCommand(programPath(), args, all, workDir);
}

// ---- the corpus -----------------------------------------------------------

fs::path corpusDir()
{
    const char* set = std::getenv("ZEMACAD_CORPUS");
    fs::path dir = set != nullptr ? fs::path(set) : sourceDir() / ".." / "shared" / "corpus";
    std::error_code ec;
    return fs::is_directory(dir, ec) ? fs::weakly_canonical(dir) : fs::path();
}

std::vector<CorpusEntry> corpusManifest()
{
    std::vector<CorpusEntry> entries;
    fs::path dir = corpusDir();
    if (dir.empty())
        return entries;
    std::ifstream in(dir / "MANIFEST.tsv");
    if (!in)
        throw std::runtime_error("corpus has no readable MANIFEST.tsv: " + dir.string());
    std::string line;
    std::getline(in, line);  // column titles
    while (std::getline(in, line)) {
        if (line.empty())
            continue;
        std::istringstream row(line);
        CorpusEntry e;
        std::string bytes;
        if (!std::getline(row, e.path, '\t') || !std::getline(row, bytes, '\t') ||
            !std::getline(row, e.sha256, '\t') || !std::getline(row, e.version, '\t'))
            throw std::runtime_error("malformed MANIFEST.tsv row: " + line);
        e.bytes = std::stoull(bytes);
        entries.push_back(std::move(e));
    }
    return entries;
}

// ---- files ----------------------------------------------------------------

std::vector<uint8_t> readFile(const fs::path& file, size_t limit)
{
    std::ifstream in(file, std::ios::binary);
    if (!in)
        throw std::runtime_error("can't read " + file.string());
    std::vector<uint8_t> bytes;
    char chunk[65536];
    while (bytes.size() < limit && in) {
        size_t want = std::min(sizeof chunk, limit - bytes.size());
        in.read(chunk, static_cast<std::streamsize>(want));
        bytes.insert(bytes.end(), chunk, chunk + in.gcount());
    }
    if (in.bad())
        throw std::runtime_error("error reading " + file.string());
    return bytes;
}

void writeFile(const fs::path& file, std::span<const uint8_t> bytes)
{
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
    if (!out.flush())
        throw std::runtime_error("can't write " + file.string());
}

void writeFile(const fs::path& file, std::string_view text)
{
    writeFile(file, std::span(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
}

}  // namespace zt

void zt::ToolkitTest::SetUp()
{
    int16_t error = 0;
    ASSERT_EQ(ksInit(ZEMACAD_INIT_FILE, 0, &error), 1) << "error " << error;
}

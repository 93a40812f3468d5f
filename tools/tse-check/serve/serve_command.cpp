// tse-check serve: the checks in a browser and on a phone. Listens on the
// loopback address unless told otherwise, prints where to go, and runs
// until Ctrl-C or SIGTERM; then it cancels its jobs and deletes every
// file it wrote.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <iostream>
#include <memory>
#include <mutex>
#include <thread>

#include "parallel.h"
#include "text.h"

#include "commands.h"
#include "serve/access.h"
#include "serve/http_server.h"
#include "serve/job_run.h"
#include "serve/serve_folder.h"
#include "serve/terminal_qr.h"
#include "shared/inputs.h"
#include "shared/options.h"

namespace tsecheck {
namespace {

using namespace serve;

// The write end of the pipe that the signal handler tells the main thread
// through; the only thing a handler may touch.
int stopPipe[2] = {-1, -1};

void onStopSignal(int)
{
    const char byte = 's';
    [[maybe_unused]] const ssize_t written = ::write(stopPipe[1], &byte, 1);
}

void waitForStopSignal()
{
    if (::pipe2(stopPipe, O_CLOEXEC) != 0) refuse(EXIT_BAD_INPUT, "Cannot serve: no pipe for the stop signal");
    struct sigaction action {};
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

std::function<void(const std::string&)> logger()
{
    auto lock = std::make_shared<std::mutex>();
    return [lock](const std::string& line) {
        std::lock_guard<std::mutex> guard(*lock);
        std::cerr << "[serve] " << line << std::endl;
    };
}

JobRunner jobRunner(const std::function<void(const std::string&)>& log)
{
    return [log](Job& job) {
        const auto start = std::chrono::steady_clock::now();
        log("job " + job.id + " " + jobKindName(job.input.kind) + ": running");
        runJob(job);
        const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        log("job " + job.id + " " + jobKindName(job.input.kind) + ": " + jobStateName(job.state) + ", exit status " +
            std::to_string(job.outcome.exitStatus) + ", " + std::to_string(std::lround(seconds * 1000)) + " ms");
    };
}

// Where to point a browser: the address itself, or for 0.0.0.0 and :: the
// first address of this machine that another device can reach.
std::string openAddress(const ListenAddress& address, int port)
{
    std::string authority = address.authority(port);
    if (address.host == "0.0.0.0" || address.host == "::") {
        for (const std::string& host : servedHosts(address.host, port)) {
            if (host.rfind("127.", 0) != 0 && host.rfind("[::1]", 0) != 0 && host.rfind("localhost", 0) != 0 &&
                host.rfind("[fe80", 0) != 0) {
                authority = host;
                break;
            }
        }
    }
    return "http://" + authority + "/";
}

void announce(const ListenAddress& address, int port, const AccessPolicy& access)
{
    const std::string url = openAddress(address, port) + (address.loopback ? "" : "?token=" + access.token());
    std::cout << "Serving tse-check at " << url << "\n";
    if (!address.loopback) std::cout << terminalQr(url) << "Scan the code with a phone on the same network.\n";
    std::cout << "API token (Authorization: Bearer): " << access.token() << "\n"
              << "Press Ctrl-C to stop; every file the server wrote is then deleted." << std::endl;
}

struct Settings {
    ListenAddress address;
    uint64_t maxUpload = 0;
    unsigned jobs = 1;
    std::chrono::milliseconds keep{0}, idle{0};
    std::string token;
};

Settings settingsOf(const ServeOptions& options)
{
    Settings settings;
    tse::Result<ListenAddress> address = parseListen(options.listen);
    if (!address) refuse(EXIT_BAD_INPUT, address.error().message);
    settings.address = *address;
    tse::Result<uint64_t> size = parseSize(options.maxUpload);
    if (!size) refuse(EXIT_BAD_INPUT, "--max-upload: " + size.error().message);
    settings.maxUpload = *size;
    settings.jobs = options.jobs ? options.jobs : tse::defaultJobs();
    if (!(options.keepMinutes >= 0) || options.keepMinutes > 7 * 24 * 60) {
        refuse(EXIT_BAD_INPUT, "--keep takes minutes from 0 to 10080 (seven days)");
    }
    settings.keep = std::chrono::milliseconds(std::llround(options.keepMinutes * 60000));
    if (!(options.idleSeconds >= 1) || options.idleSeconds > 3600) {
        refuse(EXIT_BAD_INPUT, "--idle-timeout takes seconds from 1 to 3600");
    }
    settings.idle = std::chrono::milliseconds(std::llround(options.idleSeconds * 1000));
    if (!options.token.empty() && options.token.size() < 16) {
        refuse(EXIT_BAD_INPUT, "--token takes at least 16 characters, so that it cannot be guessed");
    }
    settings.token = options.token.empty() ? randomToken() : options.token;
    return settings;
}

int serveCommand(const ServeOptions& options)
{
    const Settings settings = settingsOf(options);
    const auto log = logger();
    waitForStopSignal();
    ServeFolder folder;
    JobBoard board(folder.path(), settings.jobs, settings.jobs * WAITING_PER_SLOT, settings.keep, jobRunner(log));
    AccessPolicy access(settings.token, randomToken(), {}, !settings.address.loopback);
    ServerContext context{
        access, board, settings.idle, settings.maxUpload, std::string("tse-check ") + TSE_CHECK_VERSION, log};
    HttpServer http(context);
    const int port = http.bind(settings.address.host, settings.address.port);
    if (port < 0) {
        refuse(EXIT_BAD_INPUT, "Cannot listen on " + settings.address.authority(settings.address.port) +
                                   ": the port is taken or the address is not this machine's");
    }
    access.setHosts(servedHosts(settings.address.host, port));
    std::thread listener([&http] { http.run(); });
    announce(settings.address, port, access);
    char byte = 0;
    while (::read(stopPipe[0], &byte, 1) < 0 && errno == EINTR) {
    }
    log("stopping: cancelling the jobs and deleting their files");
    http.stop();
    listener.join();
    board.shutdown();
    return EXIT_OK;
}

}  // namespace

Command addServeCommand(CLI::App& parent)
{
    auto options = std::make_shared<ServeOptions>();
    CLI::App* app = parent.add_subcommand(
        "serve", "Serve the checks to a browser or phone: drop an export, photograph a receipt, read the verdict");
    app->footer("Listens on 127.0.0.1:8146 by default; any other address needs the access token, which is\n"
                "printed with the address and as a QR code. Runs until Ctrl-C or SIGTERM, then deletes its files.\n"
                "Exit status: 0 after a stop signal, 2 usage or an address that cannot be served.");
    app->add_option("--listen", options->listen,
                    "Address and port to serve (default 127.0.0.1:8146; port 0: a free one)")
        ->type_name("HOST:PORT");
    app->add_option("--token", options->token, "Access token (default: a random 128-bit one)")->type_name("TEXT");
    app->add_option("--max-upload", options->maxUpload, "Largest upload of one job (default 4GiB)")->type_name("SIZE");
    addJobsAtOnceOption(*app, options->jobs);
    app->add_option("--keep", options->keepMinutes, "Minutes a finished job's results are kept (default 60)")
        ->type_name("MINUTES");
    app->add_option("--idle-timeout", options->idleSeconds,
                    "Seconds after which a connection that sends no request, or an upload that stalls, is closed "
                    "(default 30)")
        ->type_name("SECONDS");
    return Command{app, [options] { return serveCommand(*options); }};
}

}  // namespace tsecheck

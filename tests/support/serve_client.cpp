#include "serve_client.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <iterator>
#include <thread>

namespace fixtures {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

}  // namespace

// A server that refuses an upload may close the connection while the
// client is still sending; the test must see the answer or the error, not
// die of SIGPIPE.
Served::Served(std::vector<std::string> options)
    : tmp(dir.path("tmp")), server((std::signal(SIGPIPE, SIG_IGN), fs::create_directories(tmp), tmp), options)
{}

httplib::Client Served::client(const std::string& host) const
{
    httplib::Client c(host, server.port());
    c.set_connection_timeout(10);
    c.set_read_timeout(60);
    c.set_write_timeout(60);
    return c;
}

httplib::MultipartFormData fileItem(const std::string& field, const std::string& path, const std::string& name)
{
    return {field, fileText(path), name.empty() ? fs::path(path).filename().string() : name,
            "application/octet-stream"};
}

json parsed(const httplib::Result& result)
{
    return result ? json::parse(result->body, nullptr, false) : json();
}

json waitFor(httplib::Client& client, const std::string& id)
{
    for (int i = 0; i < 1200; ++i) {
        const json status = parsed(client.Get("/api/jobs/" + id));
        const std::string state = status.value("state", "");
        if (state != "queued" && state != "running") return status;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return json();
}

json runJob(const Served& served, const std::string& path, const httplib::MultipartFormDataItems& items)
{
    httplib::Client client = served.client();
    const json started = parsed(client.Post(path.c_str(), served.bearer(), items));
    EXPECT_TRUE(started.contains("id")) << started.dump();
    return started.contains("id") ? waitFor(client, started["id"]) : json();
}

std::string madeExport(const std::string& name, std::vector<std::string> options)
{
    const fs::path kept = fs::path(tseCheckPath()).parent_path() / "test-data" / name;
    if (fs::exists(kept)) return kept.string();
    fs::create_directories(kept.parent_path());
    const std::string part = kept.string() + ".part";
    options.insert(options.begin(), {"-o", part});
    if (run(toolPath("make-export"), options, {}, {600, 0}).status != 0) return {};
    fs::rename(part, kept);
    return kept.string();
}

json commandJson(std::vector<std::string> arguments, const std::vector<std::string>& folders)
{
    const RunResult result = run(tseCheckPath(), arguments, {}, {180, 0});
    EXPECT_LE(result.status, 1) << result.err;
    std::string text = result.out;
    for (const std::string& folder : folders) {
        for (size_t at = text.find(folder); at != std::string::npos; at = text.find(folder, at))
            text.erase(at, folder.size());
    }
    return json::parse(text, nullptr, false);
}

}  // namespace fixtures

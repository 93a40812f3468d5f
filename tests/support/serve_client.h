#ifndef TESTS_SERVE_CLIENT_H
#define TESTS_SERVE_CLIENT_H

// The test's side of a `tse-check serve`: a server with its temporary
// folder in the test's own, an HTTP client bound to it, jobs started and
// awaited within a bound, and the command line's JSON to compare with.
// Every request goes to 127.0.0.0/8.

#include <httplib.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <string>
#include <vector>

#include "file_text.h"
#include "fixtures.h"
#include "serve_process.h"

namespace fixtures {

// A server with its TMPDIR in the test's folder, so that the test sees
// every file it writes.
struct Served {
    explicit Served(std::vector<std::string> options = {});
    TempDir dir;
    std::string tmp;
    ServeProcess server;

    httplib::Client client(const std::string& host = "127.0.0.1") const;
    httplib::Headers bearer() const { return {{"Authorization", "Bearer " + server.token()}}; }
};

httplib::MultipartFormData fileItem(const std::string& field, const std::string& path, const std::string& name = {});
nlohmann::json parsed(const httplib::Result& result);
// Polls until the job is over, for at most two minutes; its status with
// the result (null when it never ended).
nlohmann::json waitFor(httplib::Client& client, const std::string& id);
nlohmann::json runJob(const Served& served, const std::string& path, const httplib::MultipartFormDataItems& items);

// An export of make-export, made once and kept in the build tree for the
// next run: signing thousands of logs takes longer than the test. Empty
// when make-export failed.
std::string madeExport(const std::string& name, std::vector<std::string> options);

// The command line's --json, with the folders of its inputs taken out, as
// the server names uploads by their file names.
nlohmann::json commandJson(std::vector<std::string> arguments, const std::vector<std::string>& folders);

}  // namespace fixtures

#endif

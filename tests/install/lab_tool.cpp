// iwpriv and wpa_cli of the virtual access point, as those of lab/bin are, for an emulated
// processor, where a Python program takes a second to start.
#include <json.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

namespace {

using json = std::unique_ptr<json_object, decltype(&json_object_put)>;

// The lab's answer to one line; empty when there is none.
std::string ask(const std::string& line) {
    const char* root = getenv("LAB_ROOT");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof(address.sun_path), "%s/control.sock", root ? root : "");
    const int lab = socket(AF_UNIX, SOCK_STREAM, 0);
    std::string answer;
    if (connect(lab, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
        write(lab, line.data(), line.size()) == static_cast<ssize_t>(line.size())) {
        char piece[4096];
        ssize_t size = 0;
        while (answer.find('\n') == std::string::npos &&
               (size = read(lab, piece, sizeof(piece))) > 0) {
            answer.append(piece, static_cast<std::size_t>(size));
        }
    }
    close(lab);
    return answer;
}

// What the lab calls the program: wpa-cli.
std::string command_of(const char* path) {
    std::string name = std::filesystem::path(path).filename();
    std::replace(name.begin(), name.end(), '_', '-');
    return name;
}

}  // namespace

int main(int argc, char** argv) {
    const json request(json_object_new_object(), &json_object_put);
    json_object_object_add(request.get(), "cmd",
                           json_object_new_string(command_of(argv[0]).c_str()));
    json_object* arguments = json_object_new_array();
    for (int i = 1; i < argc; ++i) {
        json_object_array_add(arguments, json_object_new_string(argv[i]));
    }
    json_object_object_add(request.get(), "arguments", arguments);
    const json reply(
        json_tokener_parse(
            ask(std::string(json_object_to_json_string(request.get())) + "\n").c_str()),
        &json_object_put);
    json_object* result = nullptr;
    if (!json_object_object_get_ex(reply.get(), "result", &result)) {
        std::fprintf(stderr, "%s: no lab is running\n", argv[0]);
        return 1;
    }
    std::fputs(json_object_get_string(json_object_object_get(result, "output")), stdout);
    return json_object_get_int(json_object_object_get(result, "status"));
}

#include "status_view.h"

#include <cstdlib>

#include "picture/escape.h"
#include "picture/interrupted.h"
#include "picture/words.h"

namespace shmnmctl {
namespace {

Json with_rows(const Json& all, const std::vector<bool>& is_shown) {
    Json rows = Json::array();
    for (size_t i = 0; i < all.size(); ++i) {
        if (is_shown[i]) rows.push_back(all[i]);
    }
    return rows;
}

}  // namespace

bool wants_colors() {
    const char* const no_color = std::getenv("NO_COLOR");
    return !(no_color && *no_color);
}

std::vector<std::string> warnings(const Snapshot& snapshot) {
    std::vector<std::string> lines;
    for (const Interrupted& one : interrupted_in(snapshot)) {
        lines.push_back("! " + sentence(one) + "; see \"shmnmctl verify\"");
    }
    return lines;
}

std::string status_document(const Snapshot& snapshot, const Picture& picture, const Selection& selection) {
    if (selection.is_everything()) return status_line(snapshot, picture);
    Json status = to_json(snapshot, picture);
    Json columns = Json::array();
    for (const Server& server : picture.servers) columns.push_back(escaped(server.name));
    const ShownRows rows = selection.rows(picture);
    status["servers"] = with_rows(status["servers"], rows.servers);
    status["hb"] = with_rows(status["hb"], rows.hb);
    status["np"] = with_rows(status["np"], rows.np);
    status["fst"]["pids"] = with_rows(status["fst"]["pids"], rows.fst_pids);
    status["columns"] = std::move(columns);
    return line(status);
}

}  // namespace shmnmctl

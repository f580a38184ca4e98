// Collects what a step asks for. While a batch is made, requests wait: the region's lock is held then.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "core_messages.h"

namespace bridge {

class Outbox {
  public:
    /// @return the request's number
    template <typename Body>
    uint64_t send(const Body& body) {
        auto& request = std::get<Request>(waiting_.emplace_back(std::in_place_type<Request>));
        request.id = ++last_id_;
        request.body = body;
        return last_id_;
    }
    uint64_t watch(const std::string& prefix, int64_t from) {
        waiting_.emplace_back(Watch{++last_id_, prefix, from});
        return last_id_;
    }
    void unwatch(uint64_t id) { waiting_.emplace_back(Unwatch{id}); }
    void notice(std::string text) { notices_.push_back(std::move(text)); }

    uint64_t make(Batch batch) {
        batch.id = ++last_id_;
        batch_ = std::move(batch);
        return last_id_;
    }

    bool has_batch() const { return batch_.has_value(); }

    /// @param[in] hold  keep the requests for a later step
    Output take(bool hold) {
        Output output;
        if (!hold) output.sends.swap(waiting_);
        output.batch.swap(batch_);
        output.notices.swap(notices_);
        return output;
    }

  private:
    uint64_t last_id_ = 0;
    std::vector<Send> waiting_;
    std::optional<Batch> batch_;
    std::vector<std::string> notices_;
};

}  // namespace bridge

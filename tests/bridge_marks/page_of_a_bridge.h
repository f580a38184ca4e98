// The shared memory of a bridge's marks, for tests of what reads it.
#pragma once

#include <cstdint>
#include <memory>

#include "bridge_marks/live.h"
#include "kzmutil.h"
#include "picture/platform.h"

namespace test {

/// A page of marks in the place where a bridge would have it.
class PageOfABridge {
  public:
    explicit PageOfABridge(uint32_t size)
        : mapping_(
              KzmutilCreateNamedFileMapping(reinterpret_cast<void*>(~uintptr_t{0}), 4, 0, size, bridge::marks_name),
              picture::platform::close),
          page_(
              mapping_ ? static_cast<bridge::MarksPage*>(picture::platform::map_for_writing(mapping_.get())) : nullptr,
              picture::platform::unmap) {}

    bridge::MarksPage* get() const { return page_.get(); }

  private:
    std::unique_ptr<void, void (*)(void*)> mapping_;
    std::unique_ptr<bridge::MarksPage, void (*)(const void*)> page_;
};

}  // namespace test

// Messages as the library hands them to procedures.
#pragma once

#include <cstdlib>
#include <cstring>
#include <memory>

#include "support/message_peer.h"

namespace test {

struct FreeBlock {
  void operator()(void *block) const { std::free(block); }
};
using MessageBlock = std::unique_ptr<ORP_MSG_HEADER_ST, FreeBlock>;

// The message in a heap block that ends where the message ends, so that a sanitizer sees any step
// beyond it.
inline MessageBlock make_block(const FrameFields &fields) {
  const std::string bytes = make_frame(fields).bytes();
  MessageBlock block(static_cast<ORP_MSG_HEADER_ST *>(std::malloc(bytes.size())));
  std::memcpy(block.get(), bytes.data(), bytes.size());
  return block;
}

}  // namespace test

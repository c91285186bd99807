#include "platform/signal_stack.h"

#include <csignal>
#include <new>

namespace platform {

bool useSignalStack(std::byte* memory) {
  stack_t present{};
  if (sigaltstack(nullptr, &present) != 0 || (present.ss_flags & SS_DISABLE) == 0) return false;
  stack_t ours{};
  ours.ss_sp = memory;
  ours.ss_size = kSignalStackBytes;
  return sigaltstack(&ours, nullptr) == 0;
}

SignalStack::SignalStack() : memory(new (std::nothrow) std::byte[kSignalStackBytes]) {
  if (memory != nullptr) used = useSignalStack(memory.get());
}

SignalStack::~SignalStack() {
  if (!used) return;
  stack_t none{};
  none.ss_flags = SS_DISABLE;
  sigaltstack(&none, nullptr);
}

}  // namespace platform

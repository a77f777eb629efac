// SPDX-License-Identifier: MIT
#include "tests/wire/Wire.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tests/wire/Journal.h"

namespace wire {

namespace {

std::atomic<Wire::State*> activeState{nullptr};

/// Shorter runs of equal bytes are written out.
constexpr size_t kShortestRun = 8;

}  // namespace

std::string errorName(int error) {
  const char* name = strerrorname_np(error);
  return name == nullptr ? std::to_string(error) : name;
}

std::string bytesText(const uint8_t* bytes, size_t size) {
  std::string text = "[";
  for (size_t i = 0; i < size;) {
    size_t run = 1;
    while (i + run < size && bytes[i + run] == bytes[i]) {
      ++run;
    }
    char hex[3];
    std::snprintf(hex, sizeof(hex), "%02x", bytes[i]);
    text += text.size() > 1 ? " " : "";
    text += hex;
    if (run >= kShortestRun) {
      text += "*" + std::to_string(run);
      i += run;
    } else {
      ++i;
    }
  }
  return text + "]";
}

std::string Entry::failedText(int error) const {
  return kind == EntryKind::SystemCall ? call + " = -1 " + errorName(error)
                                       : call + " = -" + std::to_string(error);
}

Wire::State* Wire::State::active() {
  return activeState.load(std::memory_order_acquire);
}

void Wire::State::activate(State* state) {
  activeState.store(state, std::memory_order_release);
}

Node* Wire::State::node(int descriptor) {
  const int index = descriptor - kFirstDescriptor;
  if (index < 0 || index >= kNodes || !nodes[static_cast<size_t>(index)].known) {
    return nullptr;
  }
  return &nodes[static_cast<size_t>(index)];
}

int Wire::State::openNode() {
  for (size_t i = 0; i < kNodes; ++i) {
    bool closed = false;
    if (nodes[i].open.compare_exchange_strong(closed, true)) {
      nodes[i].known = true;
      return kFirstDescriptor + static_cast<int>(i);
    }
  }
  std::fprintf(stderr, "wire: more than %d nodes open at once\n", kNodes);
  std::abort();
}

int Wire::State::attempt(EntryKind kind, const std::string& call, const std::string& result) {
  std::function<void()> check;
  {
    const std::lock_guard<std::mutex> lock(mutex);
    check = atEachCall;
  }
  if (check) {
    check();
  }
  const std::lock_guard<std::mutex> lock(mutex);
  int error = 0;
  if (failingCall > 0 && --failingCall == 0) {
    error = failingError;
  }
  for (auto failure = failures.begin(); failure != failures.end();) {
    if (call.find(failure->call) != std::string::npos && --failure->countdown == 0) {
      error = failure->error;
      failure = failures.erase(failure);
      break;
    }
    ++failure;
  }
  Entry entry{kind, call, result};
  if (error != 0) {
    entry.result = entry.failedText(error).substr(call.size());
  }
  entries.push_back(entry);
  return error;
}

void Wire::State::note(const std::string& call, const std::string& result) {
  const std::lock_guard<std::mutex> lock(mutex);
  entries.push_back({EntryKind::Note, call, result});
}

bool Wire::State::scriptedAnswer(const std::string& request, uint32_t& value) {
  const std::lock_guard<std::mutex> lock(mutex);
  for (auto answer = answers.begin(); answer != answers.end(); ++answer) {
    if (request.find(answer->request) != std::string::npos) {
      value = answer->value;
      answers.erase(answer);
      return true;
    }
  }
  return false;
}

int Wire::State::pinRead(unsigned int pin) {
  const std::lock_guard<std::mutex> lock(mutex);
  auto script = pinScript.find(pin);
  if (script != pinScript.end() && !script->second.empty()) {
    const int value = script->second.front();
    script->second.pop_front();
    return value;
  }
  const auto level = pinLevels.find(pin);
  return level == pinLevels.end() ? 0 : level->second;
}

void Wire::State::pinWritten(unsigned int pin, int level) {
  const std::lock_guard<std::mutex> lock(mutex);
  pinLevels[pin] = level;
}

void Wire::State::receive(const spi_ioc_transfer* transfers, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    const auto* sent =
        reinterpret_cast<const uint8_t*>(static_cast<uintptr_t>(transfers[i].tx_buf));
    auto* buffer = reinterpret_cast<uint8_t*>(static_cast<uintptr_t>(transfers[i].rx_buf));
    const size_t size = transfers[i].len;
    // The receive buffer may be the transmit buffer.
    const std::vector<uint8_t> bytes(sent, sent == nullptr ? sent : sent + size);
    const bool scripted = buffer != nullptr && receiveScripted(buffer, size);
    if (buffer != nullptr && !scripted) {
      std::memset(buffer, kUnscriptedByte, size);
    }
    Chip answering;
    {
      const std::lock_guard<std::mutex> lock(mutex);
      answering = chip;
    }
    if (answering) {
      answering(sent == nullptr ? nullptr : bytes.data(), scripted ? nullptr : buffer, size);
    }
  }
}

bool Wire::State::receiveScripted(uint8_t* buffer, size_t size) {
  const std::lock_guard<std::mutex> lock(mutex);
  if (received.empty()) {
    return false;
  }
  const std::vector<uint8_t> bytes = received.front();
  received.pop_front();
  if (bytes.size() > size) {
    ADD_FAILURE() << "the script has " << bytes.size() << " bytes for a transfer of " << size;
  }
  std::copy_n(bytes.begin(), std::min(bytes.size(), size), buffer);
  return true;
}

std::string Wire::State::bufferText(uint64_t address) const {
  for (const Buffer& buffer : buffers) {
    if (address >= buffer.begin && address < buffer.begin + buffer.size) {
      const uint64_t offset = address - buffer.begin;
      return offset == 0 ? buffer.name : buffer.name + "+" + std::to_string(offset);
    }
  }
  return {};
}

std::string Wire::State::transferText(const spi_ioc_transfer& transfer) {
  const std::lock_guard<std::mutex> lock(mutex);
  const auto field = [](const char* name, uint64_t value) {
    return std::string(" ") + name + "=" + std::to_string(value);
  };
  const auto rareField = [&field](const char* name, uint64_t value) {
    return value == 0 ? std::string() : field(name, value);
  };
  std::string tx = "null";
  if (transfer.tx_buf != 0) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(static_cast<uintptr_t>(transfer.tx_buf));
    tx = bufferText(transfer.tx_buf) + bytesText(bytes, transfer.len);
  }
  std::string rx = bufferText(transfer.rx_buf);
  if (transfer.rx_buf == 0) {
    rx = "null";
  } else if (rx.empty()) {
    rx = transfer.rx_buf == transfer.tx_buf ? "tx" : "unnamed";
  }
  return "{tx=" + tx + " rx=" + rx + field("len", transfer.len) +
         field("speed_hz", transfer.speed_hz) + rareField("delay_usecs", transfer.delay_usecs) +
         field("bits_per_word", transfer.bits_per_word) +
         rareField("cs_change", transfer.cs_change) + rareField("tx_nbits", transfer.tx_nbits) +
         rareField("rx_nbits", transfer.rx_nbits) +
         rareField("word_delay_usecs", transfer.word_delay_usecs) + rareField("pad", transfer.pad) +
         "}";
}

Wire::Wire() : state_(std::make_unique<State>()) {
  if (State::active() != nullptr) {
    std::fprintf(stderr, "wire: there is a Wire already\n");
    std::abort();
  }
  State::activate(state_.get());
}

Wire::~Wire() {
  State::activate(nullptr);
  std::string left;
  for (const State::Failure& failure : state_->failures) {
    left += "\n  failure of \"" + failure.call + "\"";
  }
  if (state_->failingCall > 0) {
    left += "\n  failure of the " + std::to_string(state_->failingCall) + ". further call";
  }
  for (const State::Answer& answer : state_->answers) {
    left += "\n  answer of \"" + answer.request + "\"";
  }
  for (const std::vector<uint8_t>& bytes : state_->received) {
    left += "\n  received bytes " + bytesText(bytes.data(), bytes.size());
  }
  for (const auto& [pin, values] : state_->pinScript) {
    if (!values.empty()) {
      left += "\n  " + std::to_string(values.size()) + " reads of pin " + std::to_string(pin);
    }
  }
  if (!left.empty()) {
    ADD_FAILURE() << "left over in the script:" << left;
  }
  std::string unseen;
  for (const Entry& entry : state_->entries) {
    unseen += "\n  " + entry.text();
  }
  if (!unseen.empty()) {
    ADD_FAILURE() << "nobody looked at these journal entries:" << unseen;
  }
}

Lines Wire::journal() {
  Lines lines;
  for (const Entry& entry : entries()) {
    lines.push_back(entry.text());
  }
  return lines;
}

std::vector<Entry> Wire::entries() {
  const std::lock_guard<std::mutex> lock(state_->mutex);
  std::vector<Entry> taken;
  taken.swap(state_->entries);
  return taken;
}

Wire& Wire::fails(const std::string& call, int error, unsigned nth) {
  const std::lock_guard<std::mutex> lock(state_->mutex);
  state_->failures.push_back({call, error, nth});
  return *this;
}

Wire& Wire::failsCall(unsigned number, int error) {
  const std::lock_guard<std::mutex> lock(state_->mutex);
  state_->failingCall = number;
  state_->failingError = error;
  return *this;
}

Wire& Wire::answers(const std::string& request, uint32_t value) {
  const std::lock_guard<std::mutex> lock(state_->mutex);
  state_->answers.push_back({request, value});
  return *this;
}

Wire& Wire::receives(std::vector<uint8_t> bytes) {
  const std::lock_guard<std::mutex> lock(state_->mutex);
  state_->received.push_back(std::move(bytes));
  return *this;
}

Wire& Wire::answersAs(Chip chip) {
  const std::lock_guard<std::mutex> lock(state_->mutex);
  state_->chip = std::move(chip);
  return *this;
}

Wire& Wire::pinReads(unsigned int pin, std::initializer_list<int> values) {
  const std::lock_guard<std::mutex> lock(state_->mutex);
  std::list<int>& script = state_->pinScript[pin];
  script.insert(script.end(), values);
  return *this;
}

Wire& Wire::logThrows() {
  state_->logThrows = true;
  return *this;
}

Wire& Wire::diagLoggerThrows() {
  state_->diagLoggerThrows = true;
  return *this;
}

Wire& Wire::atEachCall(std::function<void()> check) {
  const std::lock_guard<std::mutex> lock(state_->mutex);
  state_->atEachCall = std::move(check);
  return *this;
}

int Wire::lastLogLine() const {
  return state_->lastLogLine;
}

void Wire::name(const void* buffer, size_t size, const std::string& bufferName) {
  const std::lock_guard<std::mutex> lock(state_->mutex);
  state_->buffers.push_back({bufferName, reinterpret_cast<uintptr_t>(buffer), size});
}

int Wire::pinLevel(unsigned int pin) const {
  const std::lock_guard<std::mutex> lock(state_->mutex);
  const auto level = state_->pinLevels.find(pin);
  return level == state_->pinLevels.end() ? -1 : level->second;
}

unsigned int Wire::nodeSpeedHz(int descriptor) const {
  const Node* node = state_->node(descriptor);
  return node == nullptr ? 0 : node->speedHz.load();
}

void Wire::pause() {
  state_->paused = true;
}

void Wire::resume() {
  state_->paused = false;
}

unsigned long Wire::pausedMessages() const {
  return state_->pausedMessages;
}

bool recording() {
  Wire::State* state = Wire::State::active();
  return state != nullptr && !state->paused;
}

TErrCode step(const std::string& call) {
  return recording() ? -Wire::State::active()->attempt(EntryKind::Step, call, " = 0") : 0;
}

std::string logged(int error, const std::string& place) {
  static const std::map<int, std::string> texts = {
      {EIO, "Return code  -5 0x0005 - Input/output error"},
      {ENODEV, "Return code  -19 0x0013 - No such device"},
      {EINVAL, "Return code  -22 0x0016 - Invalid argument"}};
  return "log ERROR \"" + texts.at(error) + "\" " + place;
}

}  // namespace wire

// SPDX-License-Identifier: MIT
#include "vboard/chips/At25640b.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>

#include "vboard/board/Board.h"
#include "vboard/chips/Bytes.h"
#include "vboard/chips/ImageFile.h"
#include "vboard/chips/Knobs.h"

namespace vboard {

namespace {

constexpr double kSupplyMin = 1.8;
constexpr double kSupplyMax = 5.5;
constexpr uint16_t kAddressMask = At25640b::kSize - 1;
constexpr uint16_t kInPage = At25640b::kPageSize - 1;
constexpr uint8_t kErased = 0xFF;

constexpr uint8_t kAnyBit = 0x08;  // of an instruction: don't care
constexpr uint8_t kLastInstruction = 0x06;

// Bits of the status register.
constexpr uint8_t kProtectPin = 0x80;
constexpr uint8_t kBlocks = 0x0C;
constexpr uint8_t kEnabled = 0x02;
constexpr uint8_t kWhileBusy = 0xFF;
constexpr unsigned kBlockShift = 2;

constexpr const char* kNames[] = {"", "WRSR", "WRITE", "READ", "WRDI", "RDSR", "WREN"};

std::string addressText(uint16_t address) {
  return hexText(address, 4);
}

}  // namespace

At25640b::At25640b(std::string name)
    : ByteChip(kType, std::move(name), {"CS", "SCK", "SI", "SO"}),
      wp_(addInput("WP", Level::High)),
      hold_(addInput("HOLD", Level::High)) {
  array_.fill(kErased);
  limits_.modes = 0b1001;
  setSelectHigh(std::chrono::nanoseconds(100));
  updateClockLimit();
  addProperties();
}

std::vector<uint8_t> At25640b::contents() const {
  const auto guard = lock();
  return {array_.begin(), array_.end()};
}

uint8_t At25640b::byteAt(uint16_t address) const {
  const auto guard = lock();
  return array_[address & kAddressMask];
}

void At25640b::setContents(uint16_t address, std::span<const uint8_t> bytes) {
  const auto guard = lock();
  const size_t place = std::min<size_t>(address, kSize);
  std::copy_n(bytes.begin(), std::min(bytes.size(), kSize - place),
              array_.begin() + static_cast<long>(place));
  saveImage();
}

uint8_t At25640b::status() const {
  const auto guard = lock();
  return statusNow();
}

bool At25640b::busy() const {
  const auto guard = lock();
  return busyUntil_.has_value();
}

uint64_t At25640b::writes() const {
  const auto guard = lock();
  return writes_;
}

uint32_t At25640b::pageCycles(size_t page) const {
  const auto guard = lock();
  return page < kPages ? cycles_[page] : 0;
}

std::optional<std::string> At25640b::setImage(const std::string& path) {
  const auto guard = lock();
  const std::string wanted = path.empty() ? path : lastingPath(path);
  const std::filesystem::path file(wanted);
  std::error_code error;
  if (std::filesystem::exists(file, error)) {
    const auto found = readImage(wanted, kSize + 1);
    if (!found || found->size() < kSize) {
      return "must name a file of 8192 bytes, or of 8193 with the status register, or a new file";
    }
    std::copy_n(found->begin(), kSize, array_.begin());
    protection_ = found->size() > kSize ? found->back() & (kProtectPin | kBlocks) : 0;
  } else if (!wanted.empty() && !std::filesystem::is_directory(file.parent_path(), error)) {
    return "must name a file in a directory that exists";
  }
  image_ = wanted;
  return std::nullopt;
}

std::string At25640b::image() const {
  const auto guard = lock();
  return image_;
}

void At25640b::setSupply(double volts) {
  const auto guard = lock();
  supply_ = std::clamp(volts, kSupplyMin, kSupplyMax);
  updateClockLimit();
}

void At25640b::setWriteTime(Time time) {
  const auto guard = lock();
  writeTime_ = time;
}

void At25640b::setSelectHighTime(Time time) {
  const auto guard = lock();
  setSelectHigh(time);
}

void At25640b::setPowerUpTime(Time time) {
  const auto guard = lock();
  powerUpTime_ = time;
}

void At25640b::setRefusedKeepsEnable(bool keeps) {
  const auto guard = lock();
  refusedKeepsEnable_ = keeps;
}

void At25640b::setStatusRefreshes(bool refreshes) {
  const auto guard = lock();
  statusRefreshes_ = refreshes;
}

void At25640b::setEndurance(uint32_t cycles) {
  const auto guard = lock();
  endurance_ = cycles;
}

void At25640b::updateClockLimit() {
  limits_.maxHz = supply_ >= 4.5 ? 20000000 : supply_ >= 2.5 ? 10000000 : 5000000;
}

void At25640b::powerUp() {
  resetSerial();
  enabled_ = false;
  busyUntil_.reset();
  pageAtWork_.reset();
  // A program starts long after the board that it runs on.
  readyAt_ = now() == Time{0} ? Time{0} : now() + powerUpTime_;
}

void At25640b::powerLost() {
  if (!busyUntil_) {
    return;
  }
  busyUntil_.reset();
  std::string victim = "the status register";
  if (pageAtWork_) {
    uint8_t* const page = array_.data() + *pageAtWork_ * kPageSize;
    for (size_t byte = 0; byte < kPageSize; ++byte) {
      for (int bit = 0; bit < 8; ++bit) {
        page[byte] = shiftedIn(page[byte], board().noise());
      }
    }
    victim = "page " + std::to_string(*pageAtWork_);
    saveImage();
  }
  violate("power-lost-while-writing", victim + " holds who knows what");
}

void At25640b::otherPinChanged(Pin& pin, Level level) {
  if (!selected()) {
    return;
  }
  if (&pin == &wp_) {
    wpFell_ = wpFell_ || level == Level::Low;
    return;
  }
  if (clockHigh()) {
    violate("hold-while-clock-high", "HOLD may change while SCK is low only");
  }
  setPaused(level == Level::Low);
}

void At25640b::frameBegan() {
  instruction_ = Instruction::Ignored;
  bytes_ = 0;
  wpFell_ = false;
  loaded_ = 0;
  data_ = 0;
  setPaused(!hold_.high());
}

void At25640b::byteCame(uint8_t byte) {
  ++bytes_;
  if (bytes_ == 1) {
    begin(byte);
    return;
  }
  switch (instruction_) {
    case Instruction::Read:
    case Instruction::Write:
      if (bytes_ <= 3) {
        addressByte(byte);
      } else if (instruction_ == Instruction::Write) {
        load(byte);
      } else {
        address_ = (address_ + 1) & kAddressMask;
      }
      return;
    case Instruction::WriteStatus: value_ = byte; return;
    default: return;
  }
}

void At25640b::begin(uint8_t byte) {
  const uint8_t code = byte & static_cast<uint8_t>(~kAnyBit);
  if (now() < readyAt_) {
    violate("too-early-after-power-up",
            "instruction " + hexText(byte) + " ignored: the chip listens in " +
                std::to_string((readyAt_ - now()).count() / 1000) + " us");
  } else if (code == 0 || code > kLastInstruction) {
    violate("unknown-instruction", hexText(byte) + " is no instruction");
  } else if (busyUntil_ && code != static_cast<uint8_t>(Instruction::ReadStatus)) {
    violate("busy", std::string(kNames[code]) + " ignored: the write cycle takes " +
                        std::to_string((*busyUntil_ - now()).count() / 1000) + " us more");
  } else {
    instruction_ = static_cast<Instruction>(code);
  }
  if (instruction_ == Instruction::ReadStatus) {
    value_ = statusNow();
    startSending();
  }
}

void At25640b::addressByte(uint8_t byte) {
  address_ = static_cast<uint16_t>(address_ << 8U | byte);
  if (bytes_ < 3) {
    return;
  }
  if (address_ > kAddressMask) {
    violate("address-range", "address " + addressText(address_) + " is " +
                                 addressText(address_ & kAddressMask) +
                                 " for the chip: it ignores A15 to A13");
    address_ &= kAddressMask;
  }
  if (instruction_ == Instruction::Read) {
    startSending();
  }
}

void At25640b::load(uint8_t byte) {
  const uint32_t place = (address_ + data_) & kInPage;
  page_[place] = byte;
  loaded_ |= 1U << place;
  ++data_;
}

uint8_t At25640b::nextByte() {
  if (instruction_ == Instruction::Read) {
    return array_[address_];
  }
  if (statusRefreshes_) {
    value_ = statusNow();
  }
  return value_;
}

uint8_t At25640b::statusNow() const {
  return busyUntil_ ? kWhileBusy : static_cast<uint8_t>(protection_ | (enabled_ ? kEnabled : 0));
}

void At25640b::frameEnded() {
  switch (instruction_) {
    case Instruction::Enable:
    case Instruction::Disable: endLatch(); return;
    case Instruction::WriteStatus: endWriteStatus(); return;
    case Instruction::Write: endWrite(); return;
    default: break;
  }
  if (!wholeBytes()) {
    violate("partial-byte", "CS rose after " + std::to_string(clocks()) + " clocks");
  } else if ((instruction_ == Instruction::Read && bytes_ < 3) ||
             (instruction_ == Instruction::ReadStatus && bytes_ < 2)) {
    violate("short-frame", "CS rose after " + std::to_string(bytes_) + " bytes of " +
                               kNames[static_cast<size_t>(instruction_)]);
  }
}

void At25640b::endLatch() {
  if (clocks() != 8) {
    violate("frame-length", std::string(kNames[static_cast<size_t>(instruction_)]) +
                                " not carried out: " + std::to_string(clocks()) +
                                " clocks in its frame, 8 expected");
    return;
  }
  enabled_ = instruction_ == Instruction::Enable;
}

bool At25640b::mayWrite(const char* what) {
  if (!enabled_) {
    violate("not-enabled",
            std::string(what) + " ignored: no WREN in a frame of its own came before");
  }
  return enabled_;
}

void At25640b::refuse(std::string_view rule, std::string text) {
  violate(rule, std::move(text));
  enabled_ = refusedKeepsEnable_;
}

bool At25640b::statusProtected() const {
  return (protection_ & kProtectPin) != 0 && (wpFell_ || !wp_.high());
}

bool At25640b::isProtected(uint16_t address) const {
  // The upper quarter, the upper half, everything.
  static constexpr size_t kFirst[] = {kSize, 0x1800, 0x1000, 0};
  return address >= kFirst[(protection_ & kBlocks) >> kBlockShift];
}

void At25640b::endWriteStatus() {
  if (!mayWrite("WRSR")) {
    return;
  }
  if (clocks() != 16) {
    refuse("frame-length", "WRSR not carried out: " + std::to_string(clocks()) +
                               " clocks in its frame, 16 expected");
  } else if (statusProtected()) {
    refuse("status-protected", "WRSR ignored: WPEN is set and WP low");
  } else {
    protection_ = value_ & (kProtectPin | kBlocks);
    pageAtWork_.reset();
    startCycle();
    if (observed()) {
      note("status register " + hexText(protection_));
    }
  }
}

void At25640b::endWrite() {
  if (!mayWrite("WRITE")) {
    return;
  }
  if (!wholeBytes()) {
    refuse("partial-byte", "WRITE not carried out: CS rose after " + std::to_string(clocks()) +
                               " clocks, within a byte");
  } else if (data_ == 0) {
    refuse("short-frame",
           "WRITE not carried out: CS rose after " + std::to_string(bytes_) + " bytes, no data");
  } else if (isProtected(address_)) {
    refuse("protected", "WRITE ignored: " + addressText(address_) + " is in a protected block");
  } else {
    storePage();
  }
}

void At25640b::storePage() {
  const size_t page = address_ / kPageSize;
  if ((address_ & kInPage) + data_ > kPageSize) {
    violate("page-wrap", std::to_string(data_) + " bytes from " + addressText(address_) +
                             " pass the end of page " + std::to_string(page) +
                             ": the rest went to its start");
  }
  for (size_t byte = 0; byte < kPageSize; ++byte) {
    if (((loaded_ >> byte) & 1U) != 0) {
      array_[page * kPageSize + byte] = page_[byte];
    }
  }
  if (++cycles_[page] == endurance_ + 1) {
    violate("worn-out", "page " + std::to_string(page) + " written " +
                            std::to_string(cycles_[page]) + " times, good for " +
                            std::to_string(endurance_));
  }
  pageAtWork_ = page;
  startCycle();
  if (observed()) {
    note("wrote " + std::to_string(data_) + " bytes at " + addressText(address_));
  }
}

void At25640b::startCycle() {
  ++writes_;
  busyUntil_ = now() + writeTime_;
  after(writeTime_, [this] {
    busyUntil_.reset();
    enabled_ = false;
  });
  saveImage();
}

void At25640b::saveImage() {
  if (image_.empty()) {
    return;
  }
  std::array<uint8_t, kSize + 1> file{};
  std::copy(array_.begin(), array_.end(), file.begin());
  file.back() = protection_;
  const size_t size = protection_ != 0 ? kSize + 1 : kSize;
  if (const int error = replaceImage(image_, std::span(file).first(size)); error != 0) {
    violate("image-not-written", image_ + ": " + std::strerror(error));
  }
}

void At25640b::addProperties() {
  const auto time = [this](const char* name, const char* unit, const char* help, double unitNs,
                           auto get, auto set) {
    addProperty(numberProperty(
        name, unit, help, 0, 1e12 / unitNs,
        [get, unitNs] { return static_cast<double>(get().count()) / unitNs; },
        [set, unitNs](double value) { set(Time(std::llround(value * unitNs))); }));
  };
  addProperty({"image", "",
               "file that keeps the contents, replaced whenever they change; none unless set",
               [this]() -> PropertyValue { return image(); },
               [this](const PropertyValue& value) -> std::optional<std::string> {
                 const auto* path = std::get_if<std::string>(&value);
                 return path != nullptr ? setImage(*path) : "must be a path";
               },
               false});
  addProperty(numberProperty(
      "vcc", "V", "supply, 1.8 to 5.5, 3.3 unless set; the highest clock follows it", kSupplyMin,
      kSupplyMax, [this] { return supply_; }, [this](double volts) { setSupply(volts); }));
  time(
      "write_time", "ms", "how long a write cycle takes, 5 unless set", 1e6,
      [this] { return writeTime_; }, [this](Time value) { setWriteTime(value); });
  time(
      "select_high", "ns", "how long CS must be high between two instructions, 100 unless set", 1,
      [this] { return selectHigh(); }, [this](Time value) { setSelectHighTime(value); });
  time(
      "power_up_time", "us", "how long the chip is deaf after power came, 100 unless set", 1e3,
      [this] { return powerUpTime_; }, [this](Time value) { setPowerUpTime(value); });
  addProperty(boolProperty(
      "refused_keeps_enable", "whether a refused write leaves WEL set, true unless set",
      [this] { return refusedKeepsEnable_; },
      [this](bool keeps) { setRefusedKeepsEnable(keeps); }));
  addProperty(boolProperty(
      "status_refreshes", "whether each byte of a long RDSR is up to date, true unless set",
      [this] { return statusRefreshes_; },
      [this](bool refreshes) { setStatusRefreshes(refreshes); }));
  addProperty(numberProperty(
      "endurance", "", "write cycles a page is good for, 1000000 unless set", 0, UINT32_MAX - 1,
      [this] { return static_cast<double>(endurance_); },
      [this](double cycles) { setEndurance(static_cast<uint32_t>(cycles)); }));
  addProperty(
      meterProperty("status", "", "the status register", [this] { return hexText(status()); }));
  addProperty(meterProperty("writes", "", "write cycles since the start",
                            [this] { return static_cast<int64_t>(writes()); }));
  addProperty(meterProperty("most_cycles", "", "write cycles of the page that has most", [this] {
    const auto guard = lock();
    return static_cast<int64_t>(*std::max_element(cycles_.begin(), cycles_.end()));
  }));
}

}  // namespace vboard

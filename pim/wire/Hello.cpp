// SPDX-License-Identifier: Apache-2.0
#include "pim/wire/Hello.h"

#include "pim/wire/private/Encoding.h"
#include "pim/wire/private/Text.h"
#include "runtime/vel/Exception.h"

namespace Routing::Pim::Wire {

namespace {

constexpr std::size_t optionHeaderSize = 4;
constexpr U16 trackingBit = 0x8000;

U16 u16At(std::span<U8 const> bytes, std::size_t at) {
  return static_cast<U16>(bytes[at] << 8 | bytes[at + 1]);
}
U32 u32At(std::span<U8 const> bytes) { return U32{u16At(bytes, 0)} << 16 | u16At(bytes, 2); }

bool isUnicast(IpGenAddr const& address) {
  return address.width() != 0 && !address.isZero() && !isMulticast(address);
}

std::size_t addressListSize(std::vector<IpGenAddr> const& addresses) {
  std::size_t size = 0;
  for (auto const& address : addresses) size += encodedUnicastSize(address.af());
  return size;
}

std::string hexadecimal(U32 number) {
  constexpr std::string_view digits = "0123456789abcdef";
  std::string text = "0x";
  for (int shift = 28; shift >= 0; shift -= 4) text += digits[number >> shift & 15];
  return text;
}

}  // namespace

HelloOptions::HelloOptions(std::span<U8 const> message) : in_(message), offset_(0), isCut_(false) {
  isCut_ = !in_.skip(headerSize);
  offset_ = in_.offset();
}

bool HelloOptions::next() {
  offset_ = in_.offset();
  if (isCut_ || in_.left() == 0) return false;
  U16 length;
  isCut_ = !in_.read(type_) || !in_.read(length) || !in_.read(length, value_);
  return !isCut_;
}

class HelloDecoder {
 public:
  explicit HelloDecoder(std::span<U8 const> bytes) : options_(bytes) {}

  std::variant<Hello, Refusal> hello() {
    while (options_.next())
      if (!option()) return std::move(refusal_);
    if (!options_.isCut()) return std::move(hello_);
    return Refusal{Reason::truncated, concatenated("in the Hello option at byte ", options_.offset())};
  }

 private:
  bool option() {
    std::span<U8 const> const value = options_.value();
    switch (static_cast<HelloOption>(options_.type())) {
      case HelloOption::holdTime:
        if (!hasLength("a hold time", 2)) return false;
        hello_.holdTime_ = u16At(value, 0);
        return true;
      case HelloOption::lanPruneDelay:
        if (!hasLength("a LAN prune delay", 4)) return false;
        hello_.lanPruneDelay_ = {
            .tracking = (u16At(value, 0) & trackingBit) != 0,
            .propagationDelay = static_cast<U16>(u16At(value, 0) & ~trackingBit),
            .overrideInterval = u16At(value, 2),
        };
        return true;
      case HelloOption::drPriority:
        if (!hasLength("a DR priority", 4)) return false;
        hello_.drPriority_ = u32At(value);
        return true;
      case HelloOption::generationId:
        if (!hasLength("a generation ID", 4)) return false;
        hello_.generationId_ = u32At(value);
        return true;
      case HelloOption::addressList:
        return addressList(value);
    }
    hello_.unknownOptions_.push_back({options_.type(), {value.begin(), value.end()}});
    return true;
  }

  bool hasLength(std::string_view what, std::size_t length) {
    if (options_.value().size() == length) return true;
    return refuse(Reason::badHelloOption,
                  concatenated(what, " of ", options_.value().size(), " bytes at byte ", options_.offset()));
  }

  bool addressList(std::span<U8 const> value) {
    hello_.addresses_.clear();
    for (Cursor in(value); in.left() != 0;) {
      std::size_t const at = options_.offset() + optionHeaderSize + in.offset();
      U8 family, encoding;
      if (!in.read(family)) return cutAddress(at);
      if (family != wireIpv4 && family != wireIpv6) {
        return refuse(Reason::unknownFamily, concatenated(family, " of secondary address at byte ", at));
      }
      if (!in.read(encoding)) return cutAddress(at);
      if (encoding != nativeEncoding) {
        return refuse(Reason::unknownEncoding,
                      concatenated(encoding, " of secondary address at byte ", at + 1));
      }
      std::span<U8 const> bytes;
      if (!in.read(family == wireIpv4 ? 4 : 16, bytes)) return cutAddress(at);
      auto const address = IpGenAddr::fromBytes(bytes);
      if (!isUnicast(address)) {
        return refuse(Reason::badHelloOption,
                      concatenated(toText(address), " in the address list at byte ", at));
      }
      hello_.addresses_.push_back(address);
    }
    return true;
  }

  bool cutAddress(std::size_t at) {
    return refuse(Reason::badHelloOption, concatenated("an address list that is cut at byte ", at));
  }

  bool refuse(Reason reason, std::string detail) {
    refusal_ = Refusal{reason, std::move(detail)};
    return false;
  }

  HelloOptions options_;
  Hello hello_;
  Refusal refusal_{};
};

namespace {

class HelloWriter {
 public:
  explicit HelloWriter(std::size_t size) { bytes_.reserve(size); }

  std::vector<U8> message(Hello const& hello) {
    u8(pimVersion << 4 | static_cast<U8>(PimType::hello));
    u8(0);
    u16(0);  // The checksum, later.
    if (auto const holdTime = hello.holdTime()) {
      option(HelloOption::holdTime, 2);
      u16(*holdTime);
    }
    if (auto const delay = hello.lanPruneDelay()) {
      option(HelloOption::lanPruneDelay, 4);
      u16((delay->tracking ? trackingBit : 0) | delay->propagationDelay);
      u16(delay->overrideInterval);
    }
    number(HelloOption::drPriority, hello.drPriority());
    number(HelloOption::generationId, hello.generationId());
    if (!hello.addresses().empty()) {
      option(HelloOption::addressList, addressListSize(hello.addresses()));
      for (auto const& address : hello.addresses()) {
        u8(wireFamily(address.af()));
        u8(nativeEncoding);
        append(address.bytes());
      }
    }
    for (auto const& [type, value] : hello.unknownOptions()) {
      option(static_cast<HelloOption>(type), value.size());
      append(value);
    }
    return std::move(bytes_);
  }

 private:
  void u8(U8 value) { bytes_.push_back(value); }
  void u16(std::size_t value) {
    u8(static_cast<U8>(value >> 8));
    u8(static_cast<U8>(value));
  }
  void append(std::span<U8 const> bytes) { bytes_.insert(bytes_.end(), bytes.begin(), bytes.end()); }

  void option(HelloOption type, std::size_t length) {
    u16(static_cast<U16>(type));
    u16(length);
  }

  void number(HelloOption type, std::optional<U32> value) {
    if (!value) return;
    option(type, 4);
    u16(*value >> 16);
    u16(*value & 0xffff);
  }

  std::vector<U8> bytes_;
};

}  // namespace

void Hello::lanPruneDelayIs(std::optional<LanPruneDelay> const& delay) {
  if (delay && delay->propagationDelay > maxPropagationDelay)
    throw Vel::RangeException(concatenated("propagation delay of ", delay->propagationDelay, " ms"));
  lanPruneDelay_ = delay;
}

void Hello::addressAdd(IpGenAddr const& address) {
  if (!isUnicast(address)) throw Vel::RangeException(concatenated(toText(address), " in the address list"));
  addresses_.push_back(address);
}

void Hello::unknownOptionAdd(U16 type, std::span<U8 const> value) {
  if (!isUnknownOption(type)) throw Vel::RangeException(concatenated("option ", type, " is known"));
  if (value.size() > 65'535) throw Vel::RangeException(concatenated(value.size(), " bytes of option ", type));
  unknownOptions_.push_back({type, {value.begin(), value.end()}});
}

std::size_t Hello::encodedSize() const {
  std::size_t size = headerSize;
  if (holdTime_) size += optionHeaderSize + 2;
  if (lanPruneDelay_) size += optionHeaderSize + 4;
  if (drPriority_) size += optionHeaderSize + 4;
  if (generationId_) size += optionHeaderSize + 4;
  if (!addresses_.empty()) size += optionHeaderSize + addressListSize(addresses_);
  for (auto const& option : unknownOptions_) size += optionHeaderSize + option.value.size();
  return size;
}

std::string toText(Hello const& hello) {
  std::string text;
  auto const add = [&text](std::string const& part) {
    if (!text.empty()) text += ", ";
    text += part;
  };
  if (auto const holdTime = hello.holdTime()) add(concatenated("hold ", *holdTime));
  if (auto const delay = hello.lanPruneDelay()) {
    add(concatenated("delay ", delay->propagationDelay, " ms, override ", delay->overrideInterval, " ms"));
    if (delay->tracking) add("tracking");
  }
  if (auto const priority = hello.drPriority()) add(concatenated("DR priority ", *priority));
  if (auto const id = hello.generationId()) add(concatenated("generation ID ", hexadecimal(*id)));
  for (std::size_t i = 0; i < hello.addresses().size(); ++i)
    add((i == 0 ? "also " : "") + toText(hello.addresses()[i]));
  for (auto const& option : hello.unknownOptions())
    add(concatenated("option ", option.type, " (", option.value.size(), " bytes)"));
  return text.empty() ? "no options" : text;
}

std::variant<Hello, Refusal> decodeHello(std::span<U8 const> bytes, IpGenAddr const& source,
                                         IpGenAddr const& destination) {
  if (auto fault = headerFault(bytes, PimType::hello, source, destination)) return std::move(*fault);
  return HelloDecoder(bytes).hello();
}

std::vector<U8> encodeHello(Hello const& hello, IpGenAddr const& source, IpGenAddr const& destination) {
  if (source.af() != destination.af() || source.width() == 0)
    throw Vel::RangeException(std::string(text(Reason::familiesDiffer)));
  std::size_t const size = hello.encodedSize();
  if (size > maxPayload) throw Vel::RangeException(concatenated(size, " bytes do not fit an IP datagram"));
  std::vector<U8> bytes = HelloWriter(size).message(hello);
  fillChecksum(bytes, source, destination);
  return bytes;
}

}  // namespace Routing::Pim::Wire

// SPDX-License-Identifier: Apache-2.0
#include "runtime/scrivo/TraceReader.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <ostream>
#include <span>
#include <system_error>
#include <tuple>
#include <type_traits>
#include <utility>

#include "runtime/scrivo/detail/Format.h"
#include "runtime/vel/Exception.h"

namespace Scrivo {

namespace {

// Takes values from the front of some bytes. What is not there reads as zero and spoils the result for good.
class Cursor {
 public:
  explicit Cursor(std::span<U8 const> bytes) : left_(bytes) {}

  std::span<U8 const> bytes(std::size_t size) {
    if (size > left_.size()) {
      good_ = false;
      left_ = {};
      return {};
    }
    std::span<U8 const> const taken = left_.first(size);
    left_ = left_.subspan(size);
    return taken;
  }

  template <class Value>
  Value value() {
    static_assert(std::is_trivially_copyable_v<Value>);
    Value result{};
    std::span<U8 const> const taken = bytes(sizeof result);
    if (!taken.empty()) std::memcpy(&result, taken.data(), sizeof result);
    return result;
  }

  // Valid as long as the bytes.
  template <class Length>
  std::string_view text() {
    std::span<U8 const> const taken = bytes(value<Length>());
    return {reinterpret_cast<char const*>(taken.data()), taken.size()};
  }

  bool good() const { return good_; }

  // Everything was there, and nothing is left but the padding.
  bool doneBut8() const { return good_ && left_.size() < 8; }

 private:
  std::span<U8 const> left_;
  bool good_ = true;
};

bool isEventKind(U8 kind) {
  return kind == static_cast<U8>(EventKind::message) || kind == static_cast<U8>(EventKind::blockTimer);
}

bool isArgumentKind(U8 kind) {
  return kind == static_cast<U8>(ArgumentKind::address) || kind == static_cast<U8>(ArgumentKind::string) ||
         kind == static_cast<U8>(ArgumentKind::integer);
}

bool isTimer(std::vector<Piece> const& pieces) {
  return pieces.size() == 2 && std::holds_alternative<std::string>(pieces[0]) &&
         pieces[1] == Piece(ArgumentKind::integer);
}

// The pieces of a descriptor, one after the other. False for a piece of an unknown kind; the cursor says
// whether all were there.
template <class OnLiteral, class OnArgument>
bool walkPieces(Cursor& cursor, unsigned count, OnLiteral const& onLiteral, OnArgument const& onArgument) {
  for (unsigned i = 0; i < count && cursor.good(); ++i) {
    U8 const kind = cursor.value<U8>();
    if (kind == Format::literalPiece)
      onLiteral(cursor.text<Format::U16>());
    else if (isArgumentKind(kind))
      onArgument(static_cast<ArgumentKind>(kind));
    else
      return false;
  }
  return true;
}

std::optional<Descriptor> parseDescriptor(std::span<U8 const> bytes) {
  Cursor cursor(bytes);
  auto const header = cursor.value<Format::DescriptorHeader>();
  if (!isEventKind(header.kind)) return {};
  Descriptor descriptor{header.id,
                        static_cast<EventKind>(header.kind),
                        std::string(cursor.text<Format::U16>()),
                        header.line,
                        {}};
  bool const known = walkPieces(
      cursor, header.pieces,
      [&](std::string_view literal) { descriptor.pieces.emplace_back(std::string(literal)); },
      [&](ArgumentKind kind) { descriptor.pieces.emplace_back(kind); });
  if (!known || !cursor.doneBut8()) return {};
  if (descriptor.kind == EventKind::blockTimer && !isTimer(descriptor.pieces)) return {};
  return descriptor;
}

std::optional<Argument> parseArgument(Cursor& cursor, ArgumentKind kind) {
  if (kind == ArgumentKind::string) return std::string(cursor.text<U8>());
  if (kind == ArgumentKind::integer) return cursor.value<std::int64_t>();
  std::span<U8 const> const bytes = cursor.bytes(cursor.value<U8>());
  if (!bytes.empty() && bytes.size() != 4 && bytes.size() != 16) return {};
  return Dova::IpGenAddr::fromBytes(bytes);
}

// Where a file was cut off.
constexpr char endOfFile[] = "the end of the file";

std::string escaped(std::string_view text) {
  std::string line;
  for (char const c : text) {
    if (c == '\n') {
      line += "\\n";
    } else if (c == '\t') {
      line += "\\t";
    } else if (c == '\\') {
      line += "\\\\";
    } else if (static_cast<U8>(c) < 0x20 || c == 0x7f) {
      char octal[8];
      std::snprintf(octal, sizeof octal, "\\%03o", static_cast<U8>(c));
      line += octal;
    } else {
      line += c;
    }
  }
  return line;
}

std::string secondsText(double seconds) {
  char text[64];
  std::snprintf(text, sizeof text, "%.9f", seconds);
  return text;
}

}  // namespace

// The open file. The bytes of the areas are copied by read(2), which is an error and not a signal where the
// file has become shorter; the header is mapped, since its numbers must be loaded whole while they change.
class TraceReader::Source {
 public:
  explicit Source(std::string const& path) : path_(path), file_(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
    if (file_ < 0) refuse(errno);
    try {
      mapHeader();
      check();
    } catch (...) {
      release();
      throw;
    }
  }
  Source(Source const&) = delete;
  Source& operator=(Source const&) = delete;
  ~Source() { release(); }

  // What does not change while the file is written.
  Format::FileHeader const& header() const { return fixed_; }

  static U64 load(U64 const& changing) { return __atomic_load_n(&changing, __ATOMIC_ACQUIRE); }
  U64 countsPerSecond() const { return load(mapped_->countsPerSecond); }
  U64 descriptorCount() const { return load(mapped_->descriptorCount); }
  U64 refusedCallSites() const { return load(mapped_->refusedCallSites); }

  // How many bytes the file lacks at its end.
  U64 missingBytes() const { return fixed_.fileBytes - fileBytes_; }

  // As much of the area as there is.
  std::vector<U8> read(Format::Area const& area) const {
    std::vector<U8> bytes(std::min(area.bytes, fileBytes_ - std::min(fileBytes_, area.offset)));
    for (U64 done = 0; done < bytes.size();) {
      ssize_t const got =
          pread(file_, bytes.data() + done, bytes.size() - done, static_cast<off_t>(area.offset + done));
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) refuse(errno);
      if (got == 0) refuse("truncated while being read");
      done += static_cast<U64>(got);
    }
    return bytes;
  }

  struct RingCopy {
    std::vector<U8> bytes;
    Format::RingState state;
  };

  // What lies between tail and head of the copy is whole.
  RingCopy readRing(EventKind kind) const {
    U32 const index = Format::ringIndex(kind);
    Format::Area const& area = fixed_.rings[index];
    Format::RingState const& shared = mapped_->ringStates[index];
    // The writer may lap a copy that takes long, so there are several attempts; it does not lap many.
    for (int attempt = 0;; ++attempt) {
      U64 const head = load(shared.head);
      std::vector<U8> bytes = read(area);
      __atomic_thread_fence(__ATOMIC_ACQUIRE);
      U64 const tail = load(shared.tail), headNow = load(shared.head);
      bool const lapped = tail > head && tail <= headNow;
      if (lapped && attempt < 100) continue;
      if (!lapped && (tail > head || head - tail > area.bytes || head % 8 != 0 || tail % 8 != 0)) {
        std::string const name = kind == EventKind::message ? "messages" : "block timers";
        refuse("the ring of " + name + " lies between " + std::to_string(tail) + " and " +
               std::to_string(head));
      }
      return {std::move(bytes), {lapped ? tail : head, tail, load(shared.overwritten)}};
    }
  }

 private:
  [[noreturn]] void refuse(std::string const& reason) const {
    throw Vel::RangeException(path_ + ": " + reason);
  }
  [[noreturn]] void refuse(int error) const { refuse(std::generic_category().message(error)); }

  void mapHeader() {
    struct stat status;
    if (fstat(file_, &status) != 0) refuse(errno);
    if (S_ISDIR(status.st_mode)) refuse(EISDIR);
    if (!S_ISREG(status.st_mode)) refuse("not a trace file: not a regular file");
    fileBytes_ = static_cast<U64>(status.st_size);
    if (fileBytes_ < Format::headerBytes)
      refuse("not a trace file: " + std::to_string(fileBytes_) + " bytes have no room for a header");
    void* const mapping = mmap(nullptr, Format::headerBytes, PROT_READ, MAP_SHARED, file_, 0);
    if (mapping == MAP_FAILED) refuse(errno);
    mapped_ = static_cast<Format::FileHeader const*>(mapping);
    std::memcpy(&fixed_, mapped_, sizeof fixed_);
  }

  void check() const {
    if (std::memcmp(fixed_.magic, Format::magic, sizeof fixed_.magic) != 0)
      refuse("not a trace file: it does not begin like one");
    if (fixed_.byteOrder != Format::byteOrder) refuse("written by a machine of another byte order");
    if (fixed_.version != Format::version)
      refuse("version " + std::to_string(fixed_.version) + " is not known here, only " +
             std::to_string(Format::version));
    if (fileBytes_ > fixed_.fileBytes)
      refuse(std::to_string(fileBytes_) + " bytes, but the header says " + std::to_string(fixed_.fileBytes));
    checkArea("descriptors", fixed_.descriptors, 0, Format::maxDescriptorAreaBytes);
    checkArea("messages", fixed_.rings[0], Format::minRingBytes, Format::maxRingBytes);
    checkArea("block timers", fixed_.rings[1], Format::minRingBytes, Format::maxRingBytes);
    // A file that was cut off is read up to its end, so its header has to be right about the rest.
    U64 const end = fixed_.rings[1].offset + fixed_.rings[1].bytes;
    if (fixed_.fileBytes != end)
      refuse("the header says " + std::to_string(fixed_.fileBytes) + " bytes, but the last area ends at " +
             std::to_string(end));
    if (countsPerSecond() == 0) refuse("the header gives no rate of the cycle counter");
  }

  void checkArea(char const* name, Format::Area const& area, U64 least, U64 most) const {
    bool const within = area.offset >= Format::headerBytes && area.offset <= fixed_.fileBytes &&
                        area.bytes <= fixed_.fileBytes - area.offset;
    if (within && area.bytes >= least && area.bytes <= most && area.offset % 8 == 0 && area.bytes % 8 == 0)
      return;
    refuse("the area of " + std::string(name) + " has " + std::to_string(area.bytes) + " bytes at " +
           std::to_string(area.offset) + " in a file of " + std::to_string(fixed_.fileBytes));
  }

  void release() {
    if (mapped_ != nullptr) munmap(const_cast<Format::FileHeader*>(mapped_), Format::headerBytes);
    ::close(file_);
  }

  std::string const& path_;
  int file_;
  U64 fileBytes_ = 0;
  Format::FileHeader const* mapped_ = nullptr;
  Format::FileHeader fixed_ = {};
};

TraceReader::TraceReader(std::string const& path) {
  Source const source(path);
  counterAtOpen_ = source.header().counterAtOpen;
  realtimeAtOpen_ = source.header().realtimeAtOpen;
  countsPerSecond_ = source.countsPerSecond();

  // Rings first: whatever a record in the copy refers to is registered by now.
  Source::RingCopy messages = source.readRing(EventKind::message);
  Source::RingCopy timers = source.readRing(EventKind::blockTimer);
  U64 const descriptorCount = source.descriptorCount();
  Format::FileHeader const& header = source.header();
  descriptorBytes_ = source.read(header.descriptors);
  readDescriptors(header.descriptors, descriptorCount);
  missingBytes_ = source.missingBytes();
  refusedCallSites_ = source.refusedCallSites();
  lost_[Format::ringIndex(EventKind::message)] = messages.state.overwritten;
  lost_[Format::ringIndex(EventKind::blockTimer)] = timers.state.overwritten;
  ringBytes_[0] = std::move(messages.bytes);
  ringBytes_[1] = std::move(timers.bytes);
  readRing(header.rings[0], messages.state, EventKind::message);
  readRing(header.rings[1], timers.state, EventKind::blockTimer);
  std::sort(records_.begin(), records_.end(), [](Record const& a, Record const& b) {
    return std::tie(a.counter, a.order) < std::tie(b.counter, b.order);
  });
}

std::vector<Event> TraceReader::events() && {
  auto const list = std::as_const(*this).events();
  return {list.begin(), list.end()};
}

std::vector<Descriptor> TraceReader::descriptors() && {
  auto const list = std::as_const(*this).descriptors();
  return {list.begin(), list.end()};
}

U64 TraceReader::lost(EventKind kind) const { return lost_[Format::ringIndex(kind)]; }

void TraceReader::readDescriptors(Format::Area const& area, U64 count) {
  std::span<U8 const> left = descriptorBytes_;
  for (U64 id = 1; id <= count; ++id) {
    U64 const place = descriptorBytes_.size() - left.size(), at = area.offset + place;
    U32 bytes = 0;
    if (left.size() >= sizeof(Format::DescriptorHeader)) std::memcpy(&bytes, left.data(), sizeof bytes);
    if (descriptorBytes_.size() < area.bytes &&
        std::max<U64>(bytes, sizeof(Format::DescriptorHeader)) > left.size()) {
      damages_.push_back({at, endOfFile});
      return;
    }
    // Longer ones are not written, and a record of a few bytes may repeat all that its descriptor says.
    if (bytes < sizeof(Format::DescriptorHeader) || bytes > Format::maxDescriptorBytes || bytes % 8 != 0 ||
        bytes > left.size()) {
      damages_.push_back({at, "the size of a descriptor"});
      return;
    }
    std::optional<Descriptor> const descriptor = parseDescriptor(left.first(bytes));
    left = left.subspan(bytes);
    if (!descriptor || descriptor->id != id) {
      damages_.push_back({at, "a descriptor"});
      continue;
    }
    auto const firstKind = static_cast<U32>(kinds_.size());
    for (Piece const& piece : descriptor->pieces)
      if (auto const* const kind = std::get_if<ArgumentKind>(&piece)) kinds_.push_back(*kind);
    sites_.push_back({descriptor->id, static_cast<U32>(place), bytes, firstKind,
                      static_cast<U32>(kinds_.size()) - firstKind, descriptor->kind});
  }
}

void TraceReader::readRing(Format::Area const& area, Format::RingState const& state, EventKind kind) {
  std::vector<U8> const& ring = ringBytes_[Format::ringIndex(kind)];
  for (U64 at = state.tail; at != state.head;) {
    U64 const place = at % area.bytes;
    U32 start[2] = {};
    if (place + sizeof start <= ring.size()) std::memcpy(start, ring.data() + place, sizeof start);
    auto const [bytes, id] = start;
    bool const filler = id == Format::fillerId;
    if (place + std::max<U64>(bytes, sizeof start) > ring.size() && ring.size() < area.bytes) {
      damages_.push_back({area.offset + std::min<U64>(place, ring.size()), endOfFile});
      // What came after it begins where the ring begins.
      at += area.bytes - place;
      if (at > state.head) return;
      continue;
    }
    if (bytes < (filler ? 8 : sizeof(Format::RecordHeader)) || bytes % 8 != 0 || bytes > area.bytes - place ||
        bytes > state.head - at) {
      damages_.push_back({area.offset + place, "the size of a record"});
      return;
    }
    if (!filler) readRecord(area, place, bytes, kind);
    at += bytes;
  }
}

void TraceReader::readRecord(Format::Area const& area, U64 place, U32 bytes, EventKind kind) {
  U32 const ring = Format::ringIndex(kind);
  Cursor cursor({ringBytes_[ring].data() + place, bytes});
  auto const header = cursor.value<Format::RecordHeader>();
  Site const* const from = site(header.id);
  if (!from || from->kind != kind) {
    damages_.push_back({area.offset + place, "a record of an unknown call site"});
    return;
  }
  bool whole = true;
  for (U32 i = 0; i < from->kinds && whole && cursor.good(); ++i)
    whole = parseArgument(cursor, kinds_[from->firstKind + i]).has_value();
  if (!whole || !cursor.doneBut8()) {
    damages_.push_back({area.offset + place, "a record"});
    return;
  }
  records_.push_back({header.counter, static_cast<U32>(records_.size()), ring & 1,
                      static_cast<U32>(place / 8) & 0x7fffffffu});
}

TraceReader::Site const* TraceReader::site(U32 id) const {
  auto const found = std::lower_bound(sites_.begin(), sites_.end(), id,
                                      [](Site const& s, U32 wanted) { return s.id < wanted; });
  return found == sites_.end() || found->id != id ? nullptr : &*found;
}

Descriptor TraceReader::descriptor(std::size_t index) const {
  Site const& from = sites_[index];
  return *parseDescriptor(std::span(descriptorBytes_).subspan(from.offset, from.bytes));
}

Descriptor TraceReader::descriptorOf(Event const& event) const {
  return descriptor(static_cast<std::size_t>(site(event.descriptor) - sites_.data()));
}

// All of it was looked at when the file was read, and is there.
Event TraceReader::event(std::size_t index) const {
  Record const& place = records_[index];
  U8 const* const bytes = ringBytes_[place.ring].data() + U64(place.place) * 8;
  U32 size;
  std::memcpy(&size, bytes, sizeof size);
  Cursor record({bytes, size});
  auto const header = record.value<Format::RecordHeader>();
  Site const& from = *site(header.id);
  Cursor descriptor(std::span<U8 const>(descriptorBytes_).subspan(from.offset, from.bytes));
  auto const about = descriptor.value<Format::DescriptorHeader>();

  double const countsPerSecond = static_cast<double>(countsPerSecond_);
  double const sinceOpen = static_cast<double>(static_cast<std::int64_t>(header.counter - counterAtOpen_));
  Event event{header.counter,
              sinceOpen / countsPerSecond,
              from.kind,
              header.id,
              std::string(descriptor.text<Format::U16>()),
              about.line,
              {},
              {},
              0,
              0};
  event.arguments.reserve(from.kinds);
  walkPieces(
      descriptor, about.pieces, [&](std::string_view literal) { event.text += literal; },
      [&](ArgumentKind kind) {
        Argument argument = *parseArgument(record, kind);
        if (event.kind == EventKind::message) event.text += toText(argument);
        event.arguments.push_back(std::move(argument));
      });
  if (event.kind == EventKind::blockTimer) {
    event.elapsed = static_cast<U64>(std::get<std::int64_t>(event.arguments.front()));
    event.elapsedSeconds = static_cast<double>(event.elapsed) / countsPerSecond;
  }
  return event;
}

ArgumentKind kindOf(Argument const& argument) {
  static_assert(std::is_same_v<std::variant_alternative_t<0, Argument>, Dova::IpGenAddr>);
  static_assert(std::is_same_v<std::variant_alternative_t<1, Argument>, std::string>);
  static_assert(std::is_same_v<std::variant_alternative_t<2, Argument>, std::int64_t>);
  return static_cast<ArgumentKind>(argument.index() + 1);
}

std::string toText(Argument const& argument) {
  if (auto const* address = std::get_if<Dova::IpGenAddr>(&argument)) return Dova::toText(*address);
  if (auto const* text = std::get_if<std::string>(&argument)) return *text;
  return std::to_string(std::get<std::int64_t>(argument));
}

std::string toText(Descriptor const& descriptor) {
  std::string text = descriptor.source + " " + std::to_string(descriptor.line) + ": ";
  for (Piece const& piece : descriptor.pieces) {
    if (auto const* literal = std::get_if<std::string>(&piece)) {
      text += *literal;
      continue;
    }
    switch (std::get<ArgumentKind>(piece)) {
      case ArgumentKind::address:
        text += "<address>";
        break;
      case ArgumentKind::string:
        text += "<string>";
        break;
      case ArgumentKind::integer:
        text += "<integer>";
        break;
    }
  }
  return escaped(text);
}

std::ostream& operator<<(std::ostream& os, Descriptor const& descriptor) { return os << toText(descriptor); }

std::string toText(Event const& event) {
  std::string line =
      secondsText(event.seconds) + " " + escaped(event.source) + " " + std::to_string(event.line) + ": ";
  if (event.kind == EventKind::blockTimer)
    line += "[" + std::to_string(event.elapsed) + " counts, " + secondsText(event.elapsedSeconds) + " s] ";
  return line + escaped(event.text);
}

std::ostream& operator<<(std::ostream& os, Event const& event) { return os << toText(event); }

}  // namespace Scrivo

// SPDX-License-Identifier: Apache-2.0
// A small world for the tests of the framework: a lamp has an attribute of every kind, a recorder notes in
// text what it hears of one.
#pragma once

#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "runtime/dova/IpGenAddr.h"
#include "runtime/vel/Attribute.h"

namespace Vel {

/// Told what happens, in order; each test reads it and starts over.
using Log = std::vector<std::string>;

inline Log taken(Log& log) { return std::exchange(log, {}); }

/// The n-th of many addresses.
inline Dova::IpGenAddr address(U32 n) { return Dova::IpGenAddr::ipv4(0x0a000000 + n); }

template <class Value>
std::string inText(Value const& value) {
  std::ostringstream text;
  text << value;
  return text.str();
}

/// What sits under a key.
class Bulb final : public Entity {
 public:
  explicit Bulb(Dova::IpGenAddr const& key) : key_(key) { ++alive; }
  Dova::IpGenAddr const& velKey() const { return key_; }
  static inline int alive = 0;

 protected:
  ~Bulb() override { --alive; }

 private:
  Dova::IpGenAddr const key_;
};

class Lamp final : public Entity {
 public:
  enum Attribute : AttributeId {
    brightnessId = firstAttributeId,
    warmthId,
    dimmedId,
    flashesId,
    spareId,
    bulbId,
    fittedId,
    guestId,
    seatId,
    serialId
  };

  class NotifieeConst : public ReactorOn<Lamp> {
   public:
    virtual void onBrightness() { handleNotification(brightnessId); }
    virtual void onWarmth() { handleNotification(warmthId); }
    virtual void onDimmed() { handleNotification(dimmedId); }
    virtual void onFlashes() { handleNotification(flashesId); }
    virtual void onSpare() { handleNotification(spareId); }
    virtual void onBulb(Dova::IpGenAddr) {}
    virtual void onBulbvelImmediate() {}
    virtual void onBulb() { handleDefault("bulb"); }
    virtual void onFitted(Dova::IpGenAddr) {}
    virtual void onFittedvelImmediate() {}
    virtual void onFitted() { handleDefault("fitted"); }
    virtual void onGuest(Dova::IpGenAddr) {}
    virtual void onGuestvelImmediate() {}
    virtual void onGuest() { handleDefault("guest"); }
    virtual void onSeat(Dova::IpGenAddr) {}
    virtual void onSeatvelImmediate() {}
    virtual void onSeat() { handleDefault("seat"); }
  };
  using Notifiee = WritableReactor<NotifieeConst, Lamp>;

  explicit Lamp(U32 serial = 0) : serial_(serial) { ++alive; }
  static inline int alive = 0;

  VEL_VALUE(U32, brightness, Brightness, 100);
  VEL_VALUE(Seconds, warmth, Warmth, 0.5);
  VEL_VALUE(bool, dimmed, Dimmed, false);
  VEL_COUNTER(flashes, Flashes);
  VEL_POINTER(Bulb, spare, Spare);

  // Made from their key, or put.
  VEL_ENTITIES(Dova::IpGenAddr, Bulb, bulb, Bulb);

  // Made elsewhere and put.
  VEL_ENTITIES_PUT(Dova::IpGenAddr, Bulb, fitted, Fitted, Vel::Lamp)
  VEL_ENTITIES_DEL(Dova::IpGenAddr, Bulb, fitted, Fitted)
  VEL_ENTITIES_READ(Dova::IpGenAddr, Bulb, fitted, Fitted);

  VEL_SET(HashSet<Dova::IpGenAddr>, guest, Guest);
  VEL_SET(OrderedSet<Dova::IpGenAddr>, seat, Seat);

  VEL_FIXED(U32, serial);

 public:
  AttributeTable const& attributeTable() const override {
    using Self = Lamp;
    static AttributeTable const table{
        VEL_ROW(brightness),  VEL_ROW(warmth),      VEL_ROW(dimmed),
        VEL_ROW(flashes),     VEL_ROW_FIXED(spare), VEL_ROW_FIXED(bulb),
        VEL_ROW_FIXED(guest), VEL_ROW_FIXED(seat),  VEL_ROW_FIXED(serial),
    };
    return table;
  }

 protected:
  ~Lamp() override { --alive; }
  void doTeardown() override {
    bulbDelAll();
    fittedDelAll();
  }
};

/// Notes every callback as "<name>: <event>", then does what it is told to.
class Recorder : public Lamp::NotifieeConst {
 public:
  Recorder(std::string name, Log& log) : name_(std::move(name)), log_(log) { ++alive; }
  static inline int alive = 0;

  /// What to do inside a callback, after noting it.
  std::function<void(Recorder& self)> then;

  void onBrightness() override { heard("brightness"); }
  void onWarmth() override { heard("warmth"); }
  void onDimmed() override { heard("dimmed"); }
  void onFlashes() override { heard("flashes"); }
  void onSpare() override { heard("spare"); }
  void onBulb(Dova::IpGenAddr key) override { heard("bulb " + toText(key)); }
  void onBulbvelImmediate() override { heard("bulb at once"); }
  void onBulb() override { heard("bulb"); }
  void onFitted(Dova::IpGenAddr key) override { heard("fitted " + toText(key)); }
  void onFittedvelImmediate() override { heard("fitted at once"); }
  void onFitted() override { heard("fitted"); }
  void onGuest(Dova::IpGenAddr key) override { heard("guest " + toText(key)); }
  void onGuestvelImmediate() override { heard("guest at once"); }
  void onGuest() override { heard("guest"); }
  void onSeat(Dova::IpGenAddr key) override { heard("seat " + toText(key)); }
  void onSeatvelImmediate() override { heard("seat at once"); }
  void onSeat() override { heard("seat"); }
  void onZeroReferences() override { heard("zero references"); }
  void onNotificationException(AttributeId id) override {
    log_.push_back(name_ + ": exception " + std::to_string(id));
  }

 protected:
  ~Recorder() override { --alive; }

 private:
  void heard(std::string const& event) {
    log_.push_back(name_ + ": " + event);
    if (auto const now = then) now(*this);  // which may set another one
  }

  std::string const name_;
  Log& log_;
};

/// A lamp without a reactor, and recorders on demand. Nothing may be left over at the end of a test.
struct LampWorld {
  Ptr<Recorder> recorder(std::string const& name) {
    auto const made = create<Recorder>(name, log);
    made->notifierIs(lamp);
    return made;
  }

  Log log;
  Ptr<Lamp> lamp = create<Lamp>();
};

/// A kind of attribute: how to make the n-th change of it, and what a watcher called "b" hears of that.
struct Kind {
  char const* name;
  AttributeId id;
  void (*change)(Lamp& lamp, U32 n);
  Log (*heard)(U32 n);
};

inline Log plain(char const* name) { return {std::string("b: ") + name}; }
inline Log keyed(char const* name, U32 n) {
  return {std::string("b: ") + name + " " + toText(address(n)), std::string("b: ") + name};
}

inline std::vector<Kind> const& kinds() {
  static std::vector<Kind> const all{
      {"Value", Lamp::brightnessId, [](Lamp& lamp, U32 n) { lamp.brightnessIs(1000 + n); },
       [](U32) { return plain("brightness"); }},
      {"Counter", Lamp::flashesId, [](Lamp& lamp, U32) { lamp.flashesInc(1); },
       [](U32) { return plain("flashes"); }},
      {"Pointer", Lamp::spareId, [](Lamp& lamp, U32 n) { lamp.spareIs(create<Bulb>(address(n))); },
       [](U32) { return plain("spare"); }},
      {"Entities", Lamp::bulbId, [](Lamp& lamp, U32 n) { lamp.bulbIs(address(n)); },
       [](U32 n) { return keyed("bulb", n); }},
      {"PutEntities", Lamp::fittedId, [](Lamp& lamp, U32 n) { lamp.fittedIs(create<Bulb>(address(n))); },
       [](U32 n) { return keyed("fitted", n); }},
      {"KeySet", Lamp::guestId, [](Lamp& lamp, U32 n) { lamp.guestIs(address(n)); },
       [](U32 n) { return keyed("guest", n); }},
      {"OrderedSet", Lamp::seatId, [](Lamp& lamp, U32 n) { lamp.seatIs(address(n)); },
       [](U32 n) { return keyed("seat", n); }},
  };
  return all;
}

}  // namespace Vel

// SPDX-License-Identifier: Apache-2.0
#include "tests/world/Random.h"

namespace Routing::Pim::Worlds {

Operation Random::operation(Model const& model) {
  U32 const at = made_++;
  Operation o;
  // Usually: interfaces with addresses, neighbors, and the machine.
  if (at < 8 && !oneIn(8)) {
    if (at < 2) {
      o.what = Do::intfAddress;
      o.a = static_cast<U8>(at);
      o.source = static_cast<U8>(at);
      o.n = 24;
    } else if (at < 4) {
      o.what = Do::intfUp;
      o.a = static_cast<U8>(at - 2);
    } else if (at < 7) {
      o.what = Do::neighborUp;
      o.a = static_cast<U8>(at - 4);
      o.group = at == 6;
    } else {
      o.what = Do::start;
    }
    return o;
  }
  o = any(false);
  for (U32 tries = 0; tries < 4 && !model.possible(o); ++tries) o = any(false);
  return o;
}

Operation Random::any(bool nested) {
  Operation o;
  auto const& p = profile_;
  // No waiting and no other temper from inside a send.
  U32 const time = nested ? 0 : p.time, tempers = nested ? 0 : p.temper;
  U32 at = below(p.surroundings + p.data + p.unruly + p.receive + time + p.machines + tempers);
  auto const among = [&at](U32 weight) {
    if (at < weight) return true;
    at -= weight;
    return false;
  };
  if (among(p.surroundings)) {
    surroundings(o);
  } else if (among(p.data)) {
    data(o);
  } else if (among(p.unruly)) {
    unruly(o);
  } else if (among(p.receive)) {
    o.what = Do::receive;
    o.a = static_cast<U8>(below(Names::targets - 1));  // nothing is sent to an unspecified address
    o.n = static_cast<U32>(generator_() >> 32);
    o.x = oneOf({0.0, 105.0, 210.0, 210.0, 65535.0});
    if (oneIn(6)) {
      o.what = oneIn(2) ? Do::rp : Do::deny;
      o.group = static_cast<U8>(below(2));
      o.source = static_cast<U8>(oneIn(200) ? Names::rps : below(Names::rps));
      o.n = below(2);
    }
  } else if (among(time)) {
    this->time(o);
  } else if (among(p.machines)) {
    machines(o, nested);
  } else {
    temper(o);
  }
  return o;
}

void Random::surroundings(Operation& o) {
  o.what =
      oneOf({Do::intfUp, Do::intfUp, Do::intfDown, Do::intfAddress, Do::intfAddress, Do::intfNotify,
             Do::intfHold, Do::intfInterval, Do::intfOverride, Do::intfRenew, Do::neighborUp, Do::neighborUp,
             Do::neighborUp, Do::neighborDown, Do::neighborDown, Do::neighborAgain, Do::resync});
  bool const neighbor = o.what == Do::neighborUp || o.what == Do::neighborDown || o.what == Do::neighborAgain;
  o.a = static_cast<U8>(below(neighbor ? Names::neighbors : Names::intfs));
  o.group = static_cast<U8>(below(Names::intfs));
  o.source = static_cast<U8>(below(Names::intfAddresses));
  if (o.what == Do::intfAddress) o.n = oneOf({24u, 24u, 16u});
  if (o.what == Do::intfHold) o.n = oneOf({0u, 105u, 210u, 65535u});
  if (o.what == Do::intfInterval) o.n = oneOf({1u, 3u, 60u});
  if (o.what == Do::intfOverride) o.x = oneOf({0.0, 0.5, 2.5, 30.0});
}

void Random::data(Operation& o) {
  o.what = oneOf({Do::add, Do::add, Do::add, Do::add, Do::remove, Do::remove, Do::groupAdd});
  if (oneIn(40)) o.what = Do::dataMake;
  o.a = static_cast<U8>(oneIn(2) ? 0 : below(Names::targets));
  o.sendKind = oneOf({SendKind::triggered, SendKind::override, SendKind::periodic, SendKind::periodic});
  o.group = static_cast<U8>(below(Names::groups));
  o.kind = static_cast<Kind>(below(5));
  o.source = static_cast<U8>(below(Names::sources));
  o.n = below(2);
}

void Random::unruly(Operation& o) {
  data(o);
  o.what = oneOf({Do::groupFilled, Do::groupFilled, Do::groupDel, Do::groupsAgain, Do::sourceAgain,
                  Do::sourcesAgain, Do::dataMake, Do::dataDel});
  if (o.what == Do::groupFilled) {
    o.n = 1 + below(15);
    o.x = below(2);
  }
  // In periodic data most of this ends the world at the next opportunity.
  if (o.sendKind == SendKind::periodic && !oneIn(2)) o.sendKind = SendKind::triggered;
}

void Random::time(Operation& o) {
  o.what = oneOf({Do::wait, Do::wait, Do::waitNext, Do::waitNext, Do::waitNext, Do::busy});
  if (o.what == Do::waitNext) return;
  o.x = oneOf({0.0, 0.01, 0.05, 0.1, 0.1, 0.2, 1.0, 2.5, 60.0, 180.0});
}

void Random::machines(Operation& o, bool nested) {
  o.what = oneOf({Do::seed, Do::quantum, Do::quantum, Do::interval, Do::diag, Do::start, Do::start, Do::start,
                  Do::drop, Do::hold, Do::release, Do::record});
  // What may be sending needs not know why it was held.
  if (nested && (o.what == Do::hold || o.what == Do::release)) o.what = Do::drop;
  o.a = static_cast<U8>(below(Names::targets));
  o.n = o.what == Do::seed ? below(1000) : o.what == Do::record ? !oneIn(3) : below(2);
  if (o.what == Do::quantum) o.x = oneOf({0.0, 0.05, 0.1, 1.0});
  if (o.what == Do::interval) o.x = oneOf({0.0, 0.1, 0.5, 5.0});
}

void Random::temper(Operation& o) {
  o.what = Do::temper;
  if (oneIn(4)) return;  // an even one
  auto& t = o.temper;
  t.take = oneOf<6, U8>({0, 1, 1, 2, 4, 255});
  if (oneIn(3)) t.filtered = static_cast<U8>(below(3));
  if (oneIn(3)) t.suppressed = static_cast<U8>(below(3));
  t.tidy = oneIn(2);
  if (oneIn(4)) t.lie = static_cast<Temper::Lie>(below(static_cast<U32>(Temper::Lie::count_)));
  if (oneIn(8)) t.throws = static_cast<Temper::Throws>(below(static_cast<U32>(Temper::Throws::count_)));
  if (oneIn(2)) t.cost = oneOf({0.01, 0.05, 0.1, 1.0});
  if (oneIn(2)) {
    t.moment = static_cast<Temper::Moment>(below(static_cast<U32>(Temper::Moment::count_)));
    t.message = static_cast<U8>(below(3));
    for (U32 count = 1 + below(3); count != 0; --count) o.meanwhile.push_back(any(true));
  }
}

}  // namespace Routing::Pim::Worlds

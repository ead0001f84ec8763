// SPDX-License-Identifier: Apache-2.0
#include "tests/world/Paste.h"

#include <algorithm>
#include <charconv>
#include <iterator>

#include "tests/world/Model.h"

namespace Routing::Pim::Worlds {

namespace {

// The shortest text that is read as the same number.
std::string number(Seconds value) {
  char text[40];
  return {text, std::to_chars(std::begin(text), std::end(text), value).ptr};
}

std::string const& target(Operation const& o) { return Names::get().text(Names::get().target[o.a]); }

std::string route(Kind kind, U8 group, U8 source, bool join) {
  auto const& names = Names::get();
  auto const& g = names.text(names.group[group]);
  if (kind == Kind::wildcard)
    return (join ? "join (*," : "prune (*,") + g + ") rp " + names.text(names.rp[source % Names::rps]);
  bool const isJoin = kind == Kind::join || kind == Kind::rptJoin;
  bool const rpt = kind == Kind::rptJoin || kind == Kind::rptPrune;
  return (isJoin ? "join (" : "prune (") + names.text(names.source[source]) + "," + g + (rpt ? ",rpt)" : ")");
}

std::string data(Operation const& o, std::string const& what) {
  static constexpr char const* words[] = {"triggered ", "override ", "periodic "};
  return words[static_cast<U32>(o.sendKind)] + target(o) + " " + what;
}

std::string command(Operation const& o, Model const* before);

std::string temper(Operation const& o) {
  auto const& t = o.temper;
  static constexpr char const* lies[] = {"",
                                         " report 0 0 0",
                                         " report 1 0 0",
                                         " report 0 0 2",
                                         " report 0 2 0",
                                         " report 4294967295 4294967295 4294967295"};
  static constexpr char const* throws[] = {"", " throws first", " throws last"};
  static constexpr char const* moments[] = {" first", " middle", " last"};
  std::string text = "temper on";
  if (t.take != Temper().take) text += " take " + std::to_string(t.take);
  if (t.filtered != 0) text += " filtered " + std::to_string(t.filtered);
  if (t.suppressed != 0) text += " suppressed " + std::to_string(t.suppressed);
  if (t.tidy) text += " tidy";
  text += lies[static_cast<U32>(t.lie)];
  text += throws[static_cast<U32>(t.throws)];
  if (t.cost != 0) text += " cost " + number(t.cost);
  std::string commands;
  for (auto const& operation : o.meanwhile)
    if (auto const words = command(operation, nullptr); !words.empty())
      commands += (commands.empty() ? "" : " ; ") + words;
  if (commands.empty()) return text;
  return text + moments[static_cast<U32>(t.moment)] + " of " + std::to_string(t.message + 1u) + " do " +
         commands;
}

// A model is there if the operation is done now and not inside a send.
std::string command(Operation const& o, Model const* before) {
  auto const& names = Names::get();
  std::string const intf = "interface " + names.intf(o.a % Names::intfs);
  std::string const neighbor = "neighbor " + names.text(names.neighbor[o.a % Names::neighbors]);
  std::string const group = names.text(names.group[o.group]);
  std::string const thisRoute = route(o.kind, o.group, o.source, o.n % 2 != 0);
  std::string const width = names.ipv6 ? "/128" : "/32";
  switch (o.what) {
    case Do::intfUp:
      return intf;
    case Do::intfDown:
      return intf + " down";
    case Do::intfAddress: {
      Addr const address = names.intfAddress[o.source];
      return intf +
             (address == names.unknown ? " none" : " " + names.text(address) + "/" + std::to_string(o.n)) +
             " stay";
    }
    case Do::intfNotify:
      return intf + " notify stay";
    case Do::intfHold:
      return intf + " hold " + std::to_string(o.n) + " stay";
    case Do::intfInterval:
      return intf + " interval " + std::to_string(o.n) + " stay";
    case Do::intfOverride:
      return intf + " override " + number(o.x) + " stay";
    case Do::intfRenew:
      return intf + " renew stay";
    case Do::neighborUp:
      return neighbor + " on " + names.intf(o.group);
    case Do::neighborDown:
      return neighbor + " down";
    case Do::neighborAgain:
      return neighbor + " again";
    case Do::resync:
      return intf + " again stay";
    case Do::add:
      return data(o, thisRoute);
    case Do::remove:
      // The wildcard that is there is removed, whatever its content.
      return data(o, "remove " + (o.kind == Kind::wildcard ? "wildcard " + group : thisRoute));
    case Do::groupAdd:
      return data(o, "group " + group);
    case Do::groupDel:
      return data(o, "ungroup " + group);
    case Do::groupFilled: {
      std::string text = o.x == 0 ? "filled" : "filled all";
      if (o.kind == Kind::wildcard) return data(o, text + " " + thisRoute);
      for (U8 i = 0; i < Names::sources; ++i)
        if (o.n >> i & 1) text += " " + route(o.kind, o.group, i, false);
      return data(o, text);
    }
    case Do::groupsAgain:
      return data(o, "again");
    case Do::sourceAgain:
      return o.kind == Kind::wildcard ? "" : data(o, "again " + thisRoute);
    case Do::sourcesAgain:
      return o.kind == Kind::wildcard ? "" : data(o, "again all " + thisRoute);
    case Do::dataMake:
      return data(o, "make");
    case Do::dataDel:
      return data(o, "gone");
    case Do::receive: {
      // The engine is not told of the interface.
      std::string text = "receive " + names.intf(0) + " upstream " + target(o) + " hold " +
                         std::to_string(static_cast<U16>(o.x));
      for (auto const& entry : receivedEntries(o.n))
        text += " " + route(entry.kind, entry.group, entry.source, entry.join);
      return text;
    }
    case Do::rp:
      return o.source < Names::rps ? "rp " + group + width + "=" + names.text(names.rp[o.source]) : "";
    case Do::deny:
      return "deny " + group + width + (o.n != 0 ? "" : " off");
    case Do::wait:
      return "wait " + number(o.x);
    case Do::waitNext:
      return before ? "wait until " + number(std::max(before->now, before->timeMin())) : "";
    case Do::busy:
      return "busy " + number(o.x);
    case Do::seed:
      return "seed " + std::to_string(o.n);
    case Do::quantum:
      return "set " + target(o) + " loopQuantum " + number(o.x);
    case Do::interval:
      return "set " + target(o) + " triggeredInterval " + number(o.x);
    case Do::diag:
      return std::string("set machine diagUpJoinCount ") + (o.n != 0 ? "true" : "false");
    case Do::start:
      return "start";
    case Do::drop:
      return "drop";
    case Do::hold:
      return "keep " + target(o);
    case Do::release:
      return "keep nothing";
    case Do::temper:
      return temper(o);
    case Do::record:
      return o.n != 0 ? "record on" : "record off";
    case Do::count_:
      break;
  }
  return {};
}

}  // namespace

std::string asConversation(std::string_view story, Sequence const& operations) {
  auto const& names = Names::get();
  std::string text = "# " + std::string(story) + "\n";
  for (IntfName i = 0; i < Names::intfs; ++i) text += "interface " + names.intf(i) + " stay\n";
  text += "temper on\ntrace 1-8\n";
  Model model;
  bool stopped = false;
  for (auto const& operation : operations) {
    if (stopped || !model.possible(operation)) continue;
    auto const words = command(operation, &model);
    std::string note;
    try {
      model.step(operation);
    } catch (Stopped const& reason) {
      stopped = true;
      note = "# the process stops: " + reason.expression + "\n";
    }
    text += note + (words.empty() ? "# " + toText(operation) : words) + "\n";
  }
  return text + "show\n";
}

}  // namespace Routing::Pim::Worlds

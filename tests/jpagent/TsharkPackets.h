// SPDX-License-Identifier: Apache-2.0
// PIM packets field by field, a line each, as they were meant and as tshark reads them:
//
//     10.0.0.1 > 224.0.0.13, TTL 1, version 2, type 3
//     upstream 10.0.0.2, hold 210, 1 groups
//     group 239.1.1.1/32, flags 0, 1 joins, 0 prunes
//     join 10.9.0.1/32, flags 4
#pragma once

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "pim/wire/Hello.h"
#include "pim/wire/PimMessage.h"
#include "tests/jpagent/Support.h"
#include "tests/jpagent/TsharkJson.h"

namespace Routing::Pim::Jpagent::Test {

/// The lines of a packet.
using Fields = std::vector<std::string>;

inline bool hasTshark() { return run("sh", {"-c", "command -v tshark"}).status == 0; }

// --- As they were meant

inline std::string headerField(IpGenAddr const& source, IpGenAddr const& destination, Wire::PimType type) {
  return toText(source) + " > " + toText(destination) + ", TTL 1, version 2, type " +
         std::to_string(static_cast<int>(type));
}

/// Each option on its own, the bytes of an unknown one included.
inline Fields fieldsOf(IpGenAddr const& source, IpGenAddr const& destination, Wire::Hello const& hello) {
  Fields fields{headerField(source, destination, Wire::PimType::hello)};
  if (auto const holdTime = hello.holdTime()) fields.push_back("hold " + std::to_string(*holdTime));
  if (auto const delay = hello.lanPruneDelay()) {
    fields.push_back("delay " + std::to_string(delay->propagationDelay) + ", override " +
                     std::to_string(delay->overrideInterval) + ", tracking " +
                     std::to_string(delay->tracking));
  }
  if (auto const priority = hello.drPriority()) fields.push_back("priority " + std::to_string(*priority));
  if (auto const id = hello.generationId()) fields.push_back("generation " + std::to_string(*id));
  for (auto const& address : hello.addresses()) fields.push_back("address " + toText(address));
  for (auto const& option : hello.unknownOptions()) {
    std::string text = "option " + std::to_string(option.type) + " ";
    char digits[4];
    for (U8 const byte : option.value) {
      std::snprintf(digits, sizeof digits, "%02x:", byte);
      text += digits;
    }
    text.pop_back();
    fields.push_back(text);
  }
  return fields;
}

/// Each group and each entry on its own.
inline Fields fieldsOf(IpGenAddr const& source, IpGenAddr const& destination,
                       Wire::JoinPrune const& message) {
  auto const withLength = [](IpGenAddr const& address) {
    return toText(address) + "/" + std::to_string(address.width());
  };
  Fields fields{headerField(source, destination, Wire::PimType::joinPrune),
                "upstream " + toText(message.upstreamNeighbor()) + ", hold " +
                    std::to_string(message.holdTime()) + ", " + std::to_string(message.groups().size()) +
                    " groups"};
  for (auto const& group : message.groups()) {
    fields.push_back("group " + withLength(group.group()) + ", flags 0, " +
                     std::to_string(group.joins().size()) + " joins, " +
                     std::to_string(group.prunes().size()) + " prunes");
    auto const add = [&](char const* verb, std::span<Wire::Source const> entries) {
      for (auto const& entry : entries)
        fields.push_back(verb + withLength(entry.address) + ", flags " + std::to_string(flagsOf(entry.kind)));
    };
    add("join ", group.joins());
    add("prune ", group.prunes());
  }
  return fields;
}

// --- As tshark reads them

using TsharkObject = nlohmann::ordered_json;  // The order of options and groups counts.

inline std::string fieldOf(TsharkObject const& object, char const* name) {
  return object.value(name, "none");
}

/// A number that tshark writes with "0x" before it.
inline std::string flagsFieldOf(TsharkObject const& object, char const* name) {
  return std::to_string(std::stoi(fieldOf(object, name), nullptr, 16));
}

inline void addHelloOption(Fields& fields, TsharkObject const& option) {
  auto const field = [&option](char const* name) { return fieldOf(option, name); };
  switch (std::stoi(field("pim.optiontype"))) {
    case 1:
      return fields.push_back("hold " + field("pim.holdtime"));
    case 2:
      return fields.push_back("delay " + field("pim.propagation_delay") + ", override " +
                              field("pim.override_interval") + ", tracking " + field("pim.t"));
    case 19:
      return fields.push_back("priority " + field("pim.dr_priority"));
    case 20:
      return fields.push_back("generation " + field("pim.generation_id"));
    case 24:
      for (auto const* name : {"pim.address_list", "pim.address_list_ip6"})
        for (auto const& address : listOf(option["Address List (24)"], name))
          fields.push_back("address " + address.get<std::string>());
      return;
    default:
      fields.push_back("option " + field("pim.optiontype") + " " + field("pim.optionvalue"));
  }
}

inline void addGroup(Fields& fields, TsharkObject const& set) {
  auto const& group = set.at(set.contains("pim.group_tree") ? "pim.group_tree" : "pim.group_ip6_tree");
  fields.push_back("group " + textOf(set, "pim.group", "pim.group_ip6") + "/" +
                   fieldOf(group, "pim.mask_len") + ", flags " + flagsFieldOf(group, "pim.group_addr.flags") +
                   ", " + fieldOf(set, "pim.numjoins") + " joins, " + fieldOf(set, "pim.numprunes") +
                   " prunes");
  for (std::string const verb : {"join", "prune"}) {
    auto const lists = set.value("pim.num" + verb + "s_tree", TsharkObject::object());
    for (std::string const family : {"ip", "ip6"})
      for (auto const& entry : listOf(lists, "pim." + verb + "_" + family + "_tree"))
        fields.push_back(verb + " " + textOf(entry, "pim.source", "pim.source_ip6") + "/" +
                         fieldOf(entry, "pim.mask_len") + ", flags " +
                         flagsFieldOf(entry, "pim.source_addr.flags"));
  }
}

/// All packets of a capture. What tshark finds wrong with one is a line of it, too.
inline std::vector<Fields> readByTshark(std::string const& path) {
  auto const outcome = run("tshark", {"-r", path, "-T", "json", "--no-duplicate-keys", "-J", "ip ipv6 pim",
                                      "-o", "ip.check_checksum:TRUE"});
  std::vector<Fields> packets;
  for (auto const& packet : TsharkObject::parse(outcome.out)) {
    auto const& layers = packet["_source"]["layers"];
    auto const& ip = layers.at(layers.contains("ip") ? "ip" : "ipv6");
    auto const& pim = layers["pim"];
    auto& fields = packets.emplace_back();
    fields.push_back(textOf(ip, "ip.src", "ipv6.src") + " > " + textOf(ip, "ip.dst", "ipv6.dst") + ", TTL " +
                     textOf(ip, "ip.ttl", "ipv6.hlim") + ", version " + fieldOf(pim, "pim.version") +
                     ", type " + fieldOf(pim, "pim.type"));
    if (layers.contains("_ws.malformed")) fields.push_back("malformed");
    if (fieldOf(pim, "pim.cksum.status") != "1") fields.push_back("bad PIM checksum");
    if (layers.contains("ip") && fieldOf(ip, "ip.checksum.status") != "1")
      fields.push_back("bad IP checksum");
    if (fieldOf(pim, "pim.type") == "3") {
      auto const& body = pim["pim.option"];
      fields.push_back("upstream " + textOf(body, "pim.upstream_neighbor", "pim.upstream_neighbor_ip6") +
                       ", hold " + fieldOf(body, "pim.holdtime") + ", " + fieldOf(body, "pim.numgroups") +
                       " groups");
      for (auto const& set : listOf(body, "pim.group_set_tree")) addGroup(fields, set);
    } else if (pim.contains("pim.option")) {
      // tshark names an option by its text, so options that say the same are a list.
      for (auto const& [text, options] : pim["pim.option"].items())
        for (auto const& option : listOf(pim["pim.option"], text)) addHelloOption(fields, option);
    }
  }
  return packets;
}

}  // namespace Routing::Pim::Jpagent::Test

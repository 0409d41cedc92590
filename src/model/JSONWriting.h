#pragma once

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "model/Blocker.h"
#include "model/FirewallPackage.h"
#include "model/Package.h"
#include "model/Rule.h"

// Writer-level encoding, for code that streams many records into one buffer
// (the Safari JSON compiler writes entries straight from the rules that hold
// them, without gathering copies first):
//
//     rapidjson::StringBuffer buffer;
//     JSONWriter writer(buffer);
//     writer.StartArray();
//     for (const Rule* rule : enabled) writeBlocker(writer, rule->blocker);
//     writer.EndArray();
//
// Each function writes exactly one JSON value at the writer's position.
namespace tamsel::model {

using JSONWriter = rapidjson::Writer<rapidjson::StringBuffer>;

void writeDomainFilter(JSONWriter& writer, const DomainFilter& filter);  // standalone form
void writeTrigger(JSONWriter& writer, const Trigger& trigger);
void writeAction(JSONWriter& writer, const Action& action);
void writeBlocker(JSONWriter& writer, const Blocker& blocker);
void writeRule(JSONWriter& writer, const Rule& rule);
void writePackage(JSONWriter& writer, const Package& package);
void writeFirewallRule(JSONWriter& writer, const FirewallRule& rule);
void writeFirewallPackage(JSONWriter& writer, const FirewallPackage& package);

}  // namespace tamsel::model

#include "daemon/protocol/QSServiceProtocols.h"

namespace quillsift {

const WireInterface& serverProtocol() {
  static const WireInterface interface {
    .name = "io.vantor.quillsiftd.QSServiceServerProtocol", .messages = {
      {.name = wire::kQueryJobStatusInformation,
       .arguments = {},
       .results = {{"jobs", "aa{sv}"}, {"dateFinished", "ad"}}},
      {.name = wire::kStartQuillsift, .arguments = {}, .results = {{"started", "b"}}},
      {.name = wire::kClearQuillsiftData, .arguments = {}, .results = {}},
      {.name = wire::kSaveQuillsift,
       .arguments = {{"destination", "s"}, {"shouldArchive", "b"}, {"collectSensitiveFiles", "b"}},
       .results = {{"started", "b"}}},
    }
  };
  return interface;
}

const WireInterface& clientProtocol() {
  static const WireInterface interface {
    .name = "io.vantor.quillsiftd.QSServiceClientProtocol", .messages = {
      {.name = wire::kReportSaveProgress,
       .arguments = {{"progress", "d"}, {"state", "x"}, {"path", "s"}},
       .results = {}},
      {.name = wire::kQuillsiftStarted, .arguments = {}, .results = {}},
      {.name = wire::kQuillsiftDataCleared, .arguments = {}, .results = {}},
      {.name = wire::kJobStatusChanged, .arguments = {{"info", "a{sv}"}}, .results = {}},
    }
  };
  return interface;
}

}  // namespace quillsift

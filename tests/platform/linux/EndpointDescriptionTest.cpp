#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "daemon/protocol/QSServiceProtocols.h"
#include "platform/linux/LinuxRemoteServiceConnector.h"
#include "platform/linux/LinuxServiceConnections.h"
#include "platform/linux/LinuxWorkQueues.h"
#include "tests/platform/linux/ServiceFixture.h"

namespace quillsift::testing {
namespace {

// The lines from one marker to the next that ends it, without indentation and comments.
std::string interfaceIn(const std::string& xml, const std::string& name) {
  std::string text = xml;
  for (std::size_t at = 0; (at = text.find("<!--")) != std::string::npos;)
    text.erase(at, text.find("-->", at) + 3 - at);
  const std::size_t begin = text.find("<interface name=\"" + name + "\">");
  const std::size_t end = text.find("</interface>", begin);
  if (begin == std::string::npos || end == std::string::npos) return "";
  std::istringstream lines(text.substr(begin, end - begin));
  std::string result;
  for (std::string line; std::getline(lines, line);) {
    const std::size_t first = line.find_first_not_of(' ');
    if (first != std::string::npos) result += line.substr(first) + "\n";
  }
  return result;
}

std::string introspected(const std::string& socketPath) {
  const WireInterface introspectable{
      .name = "org.freedesktop.DBus.Introspectable",
      .messages = {{.name = "Introspect", .arguments = {}, .results = {{"xml_data", "s"}}}}};
  LinuxRemoteServiceConnector connector;
  QSError error;
  const auto client = connector.connect(socketPath, introspectable, clientProtocol(), &error);
  if (!client) return error.description();
  const auto results = client->call("Introspect", {}, kLimit, &error);
  if (!results) return error.description();
  return *results->at(0).as<std::string>();
}

TEST(EndpointDescriptionTest, TheInstalledDescriptionIsWhatIntrospectionAnswers) {
  const ScratchDirectory directory;
  LinuxWorkQueues queues;
  LinuxServiceConnections connections(queues, directory.path("socket"));
  const auto listener = connections.makeListener(kServiceName);
  listener->setAcceptHandler([](std::shared_ptr<ServiceConnection> connection) {
    connection->setExportedInterface(serverProtocol(), {});
    connection->setRemoteInterface(clientProtocol());
    connection->resume();
    return true;
  });
  ASSERT_TRUE(listener->resume(nullptr));
  const std::string answered = introspected(directory.path("socket"));
  std::ifstream file(ENDPOINT_DESCRIPTION);
  const std::string installed{std::istreambuf_iterator<char>(file), {}};
  for (const WireInterface* interface : {&serverProtocol(), &clientProtocol()}) {
    EXPECT_NE(interfaceIn(answered, interface->name), "") << answered;
    EXPECT_EQ(interfaceIn(answered, interface->name), interfaceIn(installed, interface->name));
  }
}

}  // namespace
}  // namespace quillsift::testing

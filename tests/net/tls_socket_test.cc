// TlsSocket against itself and against the openssl command-line peers, with certificates made
// by the openssl tool in a fresh directory.
#include "net/tls_socket.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>
#include <tuple>
#include <utility>

#include "net_test_support.h"

namespace vantrelo::net::tls {
namespace {

using namespace testing;
const std::string kOk = "(no error)";
std::string dir;  // shared by the whole suite

void run(const std::string& command) {
  ASSERT_EQ(std::system(("cd " + dir + " && (" + command + ") >>openssl.log 2>&1").c_str()), 0)
      << command;
}

// A key and a certificate signed by `ca` (none: by itself), valid from now for two days; also
// both in one file, name-key.pem.
void makeCertificate(const std::string& name, const std::string& subject, const std::string& ca,
                     const std::string& extensions) {
  std::ofstream(dir + "/" + name + ".ext") << extensions << "\n";
  run("openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout " + name +
      ".key -out " + name + ".csr -subj '" + subject + "' && openssl x509 -req -in " + name +
      ".csr -days 2 -out " + name + ".pem -extfile " + name + ".ext " +
      (ca.empty() ? "-signkey " + name + ".key"
                  : "-CA " + ca + ".pem -CAkey " + ca + ".key -CAcreateserial") +
      " && cat " + name + ".pem " + name + ".key >" + name + "-key.pem");
}

class TlsSocketTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir = makeTempDirectory("tls");
    makeCertificate("ca", "/CN=Vantrelo Test CA", "", "basicConstraints=critical,CA:true");
    makeCertificate("server", "/O=Vantrelo Test/CN=localhost", "ca",
                    "subjectAltName=DNS:localhost,IP:127.0.0.1");
    makeCertificate("client", "/O=Vantrelo Test/CN=client one", "ca",
                    "extendedKeyUsage=clientAuth");
    makeCertificate("stranger", "/CN=localhost", "", "subjectAltName=DNS:localhost");
    // Stores trust the test CA; a key sits inside its certificate's file or beside it.
    run("mkdir server client empty && cp ca.pem server.pem server.key server/ && "
        "cp ca.pem server.pem empty/ && cp ca.pem client/ && cp client.pem client/b-client.crt && "
        "cp client.key client/b-client.key && openssl x509 -in server.pem -noout -fingerprint "
        "-sha1 | cut -d= -f2 | tr -d ':\n' >server.sha1");
  }
  static void TearDownTestSuite() {
    if (!::testing::Test::HasFailure()) std::filesystem::remove_all(dir);
  }

  // A server finds its certificate by subject; a client looks for one only when asked to.
  static TlsSettings settings(bool server, bool validate, const std::string& store) {
    return {.server_role = server,
            .enabled = true,
            .validate = validate,
            .server_name = "localhost",
            .store = dir + "/" + store,
            .subject = server ? "localhost" : "CN=client",
            .thumbprint = {}};
  }
};

// Both ends are TlsSockets on one loopback connection. The thumbprint is upper case and without
// colons: the form the Windows certificate manager shows.
TEST_F(TlsSocketTest, StoreLookupsClientCertificatesAndData) {
  const std::string prefix = "TLS handshake failed: ";
  enum { kNone, kManual, kAutomatic };  // the client's certificate; the server then requires one
  const struct {
    std::string store, subject, thumbprint;
    int clientCertificate;
    std::string error;  // the server's, a prefix
  } cases[] = {
      {"server", "cn=LOCALHOST", "", kNone, kOk},
      {"server", "nothing", readFile(dir + "/server.sha1"), kNone, kOk},  // the thumbprint wins
      {"server", "localhost", "", kManual, kOk},
      {"server", "localhost", "", kAutomatic, kOk},
      {"server", "CN=nobody", "", kNone,
       prefix + "Certficate with subject 'CN=nobody' not found in store "},
      {"server", "", "12zz", kNone, prefix + "Parse certficate thumbprint '12zz' failed: "},
      {"missing", "localhost", "", kNone, prefix + "CertOpenSystemStore("},
      {"empty", "localhost", "", kNone,
       prefix + "Certficate with subject 'localhost' not found in store "},
  };
  LogRecorder log;
  std::string data(100000, '\0'), received;  // several records
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i % 251);
  for (const auto& c : cases) {
    const bool mutual = c.clientCertificate != kNone;
    TlsSettings serverSide = settings(true, mutual, c.store),
                clientSide = settings(false, mutual, "client");
    std::tie(serverSide.subject, serverSide.thumbprint) = std::tie(c.subject, c.thumbprint);
    clientSide.client_certificate = mutual;
    clientSide.client_certificate_auto = c.clientCertificate == kAutomatic;
    LoopbackPair pair;
    TlsSocket server("server", serverSide, *pair.server),
        client("client", clientSide, *pair.client);
    char byte = 'x';
    EXPECT_EQ(errorOf([&] { client.write(&byte, 1); }), "TLS handshake not complete");
    EXPECT_EQ(errorOf([&] { server.read(&byte, 1); }), "TLS handshake not complete");
    // A side that fails closes its socket, ending the other's wait.
    std::string serverError;
    std::thread thread([&] {
      if ((serverError = errorOf([&] { server.handshake(); })) != kOk) pair.server->close();
    });
    const std::string clientError = errorOf([&] { client.handshake(); });
    if (clientError != kOk) pair.client->close();
    thread.join();
    EXPECT_EQ(serverError.rfind(c.error, 0), 0u) << c.subject << ": " << serverError;
    if (c.error != kOk || clientError != kOk) {
      EXPECT_NE(c.error, kOk) << clientError;
      continue;
    }
    received.clear();
    thread = std::thread([&] {
      for (char buffer[7000]; received.size() < data.size();) {
        received.append(buffer, server.read(buffer, sizeof buffer));
      }
    });
    client.write(data.data(), 0);
    client.write(data.data(), static_cast<uint32_t>(data.size()));
    thread.join();
    EXPECT_EQ(received, data);
  }
  EXPECT_TRUE(log.contains("I TlsSocket[server]: TLS handshake complete"));
}

TEST_F(TlsSocketTest, ClientValidatesRealServers) {
  // A store named relative to the current directory, as the agent runs in the configuration's
  // directory; no store name at all means that directory too.
  const std::filesystem::path previous = std::filesystem::current_path();
  std::filesystem::current_path(dir + "/client");
  const struct {
    std::string certificate, serverName;
    bool validate;
    std::string error;  // part of the message; empty for success
    std::string store = dir + "/client";
  } cases[] = {
      {"server", "localhost", true, "", ""},
      {"server", "localhost", true, "", "."},
      {"server", "127.0.0.1", true, ""},
      {"server", "example.org", true, "hostname mismatch"},
      {"stranger", "localhost", true, "self-signed certificate"},
      {"stranger", "localhost", false, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.certificate + " " + c.serverName);
    const uint16_t port = unusedPort();
    // In the background, its input kept open (at its end s_server would drop the connection),
    // ending by itself after the one connection or, at the latest, after 20 seconds.
    run("(sleep 20 | timeout 20 openssl s_server -quiet -naccept 1 -accept 127.0.0.1:" +
        std::to_string(port) + " -cert " + c.certificate + "-key.pem >s_server.log 2>&1 &)");
    Socket socket(1, loopbackSettings(port));
    ASSERT_NO_THROW(connectWithRetry(socket)) << readFile(dir + "/s_server.log");
    TlsSettings clientSide = settings(false, c.validate, "client");
    std::tie(clientSide.store, clientSide.server_name) = std::tie(c.store, c.serverName);
    TlsSocket tls("client", clientSide, socket);
    const std::string error = errorOf([&] { tls.handshake(); });
    const std::string expected =
        c.error.empty() ? kOk : "TLS handshake failed: InitializeSecurityContext() failed: ";
    EXPECT_EQ(error.rfind(expected, 0), 0u) << error;
    EXPECT_NE(error.find(c.error), std::string::npos) << error;
  }
  std::filesystem::current_path(previous);
}

TEST_F(TlsSocketTest, ServerMeetsARealClientAndItsCloseAlert) {
  std::ofstream(dir + "/input.txt") << "hello\n";
  for (const std::string& options : {std::string("-cert client.pem -key client.key"),
                                     std::string()}) {  // the second sends no certificate
    Socket listener(1, loopbackSettings());
    listener.listen();
    run("(timeout 20 openssl s_client -no_ign_eof -verify_return_error -CAfile ca.pem "
        "-servername localhost -connect 127.0.0.1:" +
        std::to_string(listener.localPort()) + " " + options + " <input.txt >/dev/null 2>&1 &)");
    auto socket = acceptOne(listener);
    TlsSocket tls("server", settings(true, true, "server"), *socket);
    const std::string error = errorOf([&] { tls.handshake(); });
    if (options.empty()) {
      EXPECT_EQ(error.rfind("TLS handshake failed: AcceptSecurityContext() failed: ", 0), 0u)
          << error;
      continue;
    }
    ASSERT_EQ(error, kOk);
    // The client sends its line, then the close alert at the end of its input.
    std::string received;
    const std::string closing = errorOf([&] {
      for (char buffer[64];;) received.append(buffer, tls.read(buffer, sizeof buffer));
    });
    EXPECT_EQ(received, "hello\n");
    EXPECT_EQ(closing.rfind("DecryptMessage() failed: TLS context expired: ", 0), 0u) << closing;
  }
}

}  // namespace
}  // namespace vantrelo::net::tls

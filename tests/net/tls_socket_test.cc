// TlsSocket against itself and against the openssl command-line peers, with certificates made
// by the openssl tool in a fresh directory (and an expired one made through the library).
#include "net/tls_socket.h"

#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "child_process.h"
#include "net_test_support.h"

namespace ns::net::tls {
namespace {

namespace fs = std::filesystem;
using testing::ChildProcess;

std::string dir;  // shared by the whole suite

void run(const std::string& command) {
  ASSERT_EQ(std::system(("cd " + dir + " && (" + command + ") >>openssl.log 2>&1").c_str()), 0)
      << command;
}

void makeCertificate(const std::string& name, const std::string& subject, const std::string& ca,
                     const std::string& extensions) {
  run("openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout " + name +
      ".key -out " + name + ".csr -subj '" + subject + "'");
  std::ofstream(dir + "/" + name + ".ext") << extensions << "\n";
  run("openssl x509 -req -in " + name + ".csr -CA " + ca + ".pem -CAkey " + ca +
      ".key -CAcreateserial -days 2 -out " + name + ".pem -extfile " + name + ".ext");
}

// A certificate whose validity ended yesterday, signed by the test CA: the command-line tool
// cannot date a certificate into the past, the library can.
void makeExpiredCertificate() {
  auto load = [](const std::string& file, auto reader) {
    FILE* f = std::fopen((dir + "/" + file).c_str(), "r");
    auto* result = reader(f, nullptr, nullptr, nullptr);
    std::fclose(f);
    return result;
  };
  X509* ca = load("ca.pem", PEM_read_X509);
  EVP_PKEY* caKey = load("ca.key", PEM_read_PrivateKey);
  EVP_PKEY* key = load("server.key", PEM_read_PrivateKey);
  X509* certificate = X509_new();
  X509_set_version(certificate, 2);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate), 4242);
  X509_gmtime_adj(X509_getm_notBefore(certificate), -3 * 86400);
  X509_gmtime_adj(X509_getm_notAfter(certificate), -86400);
  X509_set_pubkey(certificate, key);
  X509_NAME* name = X509_get_subject_name(certificate);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>("localhost"), -1, -1, 0);
  X509_set_issuer_name(certificate, X509_get_subject_name(ca));
  X509_sign(certificate, caKey, EVP_sha256());
  FILE* out = std::fopen((dir + "/expired/expired.pem").c_str(), "w");
  PEM_write_X509(out, certificate);
  PEM_write_PrivateKey(out, key, nullptr, nullptr, 0, nullptr, nullptr);
  std::fclose(out);
  X509_free(certificate);
  X509_free(ca);
  EVP_PKEY_free(caKey);
  EVP_PKEY_free(key);
}

class TlsSocketTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir = testing::makeTempDirectory("tls");
    for (const char* sub : {"server", "client", "other", "expired", "empty"}) {
      fs::create_directories(dir + "/" + sub);
    }
    run("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout "
        "ca.key -out ca.pem -days 2 -subj '/CN=Vantrelo Test CA'");
    run("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout "
        "rogue.key -out rogue.pem -days 2 -subj '/CN=Rogue CA'");
    makeCertificate("server", "/O=Vantrelo Test/CN=localhost", "ca",
                    "subjectAltName=DNS:localhost,IP:127.0.0.1");
    makeCertificate("client", "/O=Vantrelo Test/CN=client one", "ca",
                    "extendedKeyUsage=clientAuth");
    makeCertificate("stranger", "/CN=localhost", "rogue", "subjectAltName=DNS:localhost");
    // Stores: server and client stores trust the test CA; the key sits beside or inside.
    run("cp ca.pem server/ && cp server.pem server.key server/");
    run("cp ca.pem client/ && cp client.pem client/b-client.crt && cp client.key "
        "client/b-client.key");
    run("cat stranger.pem stranger.key > other/stranger.pem");
    makeExpiredCertificate();
  }
  static void TearDownTestSuite() {
    if (!::testing::Test::HasFailure()) fs::remove_all(dir);
  }

  static TlsSettings serverSettings(const std::string& store, bool validate) {
    TlsSettings settings;
    settings.server_role = true;
    settings.enabled = true;
    settings.validate = validate;
    settings.store = dir + "/" + store;
    settings.subject = "localhost";
    return settings;
  }
  static TlsSettings clientSettings(const std::string& name, bool validate) {
    TlsSettings settings;
    settings.enabled = true;
    settings.validate = validate;
    settings.server_name = name;
    settings.store = dir + "/client";
    return settings;
  }
};

std::string errorOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const std::exception& e) {
    return e.what();
  }
  return "(no error)";
}

// Runs both handshakes over one loopback connection; returns the two error texts.
struct Session {
  Session(const TlsSettings& serverSide, const TlsSettings& clientSide)
      : server("server", serverSide, *pair.server), client("client", clientSide, *pair.client) {}
  std::pair<std::string, std::string> handshake() {
    std::string serverError;
    std::thread thread([&] {
      serverError = errorOf([&] { server.handshake(); });
      if (serverError != "(no error)") pair.server->close();  // unblock a waiting client
    });
    std::string clientError = errorOf([&] { client.handshake(); });
    if (clientError != "(no error)") pair.client->close();  // unblock a waiting server
    thread.join();
    return {serverError, clientError};
  }
  testing::LoopbackPair pair;
  TlsSocket server;
  TlsSocket client;
};

TEST_F(TlsSocketTest, HandshakesBetweenOwnEnds) {
  struct Case {
    const char* name;
    bool serverValidates;
    bool clientCertificate;
    bool automatic;
    std::string thumbprint;
    std::string serverError;  // prefix; empty for success
  };
  const std::vector<Case> cases = {
      {"no client certificate asked", false, false, false, "", ""},
      {"manual client certificate", true, true, false, "", ""},
      {"automatic client certificate", true, true, true, "", ""},
      {"client certificate missing", true, false, false, "",
       "TLS handshake failed: AcceptSecurityContext() failed: "},
  };
  for (const Case& c : cases) {
    TlsSettings clientSide = clientSettings("localhost", true);
    clientSide.client_certificate = c.clientCertificate;
    clientSide.client_certificate_auto = c.automatic;
    clientSide.subject = "CN=client";
    Session session(serverSettings("server", c.serverValidates), clientSide);
    testing::LogRecorder log;
    auto [serverError, clientError] = session.handshake();
    if (c.serverError.empty()) {
      EXPECT_EQ(serverError, "(no error)") << c.name;
      EXPECT_EQ(clientError, "(no error)") << c.name;
      EXPECT_TRUE(log.contains("I TlsSocket[server]: TLS handshake complete")) << c.name;
    } else {
      EXPECT_EQ(serverError.rfind(c.serverError, 0), 0u) << c.name << ": " << serverError;
    }
  }
}

TEST_F(TlsSocketTest, LargeWritesAndTheCloseAlert) {
  Session session(serverSettings("server", false), clientSettings("127.0.0.1", true));
  ASSERT_EQ(session.handshake(),
            std::make_pair(std::string("(no error)"), std::string("(no error)")));
  std::string data(100000, '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i % 251);
  std::string received;
  std::thread reader([&] {
    char buffer[7000];
    while (received.size() < data.size()) {
      received.append(buffer, session.server.read(buffer, sizeof buffer));
    }
  });
  session.client.write(data.data(), 0);
  session.client.write(data.data(), static_cast<uint32_t>(data.size()));
  reader.join();
  EXPECT_EQ(received, data);
  session.client.shutdown();
  char byte;
  EXPECT_EQ(errorOf([&] {
              session.server.read(&byte, 1);
            }).rfind("DecryptMessage() failed: TLS context expired: ", 0),
            0u);
}

TEST_F(TlsSocketTest, NotCompleteAndDisabledSessions) {
  testing::LoopbackPair pair;
  TlsSocket enabled("a", clientSettings("localhost", true), *pair.client);
  char byte = 'x';
  EXPECT_EQ(errorOf([&] { enabled.write(&byte, 1); }), "TLS handshake not complete");
  EXPECT_EQ(errorOf([&] { enabled.read(&byte, 1); }), "TLS handshake not complete");
  TlsSocket disabled("b", TlsSettings(), *pair.client);
  TlsSocket disabledPeer("c", TlsSettings(), *pair.server);
  disabled.handshake();
  disabled.write("q", 1);
  EXPECT_EQ(disabledPeer.read(&byte, 1), 1u);
  EXPECT_EQ(byte, 'q');
}

std::string thumbprintOf(const std::string& file) {
  std::string out = dir + "/fingerprint.txt";
  std::system(
      ("openssl x509 -in " + dir + "/" + file + " -noout -fingerprint -sha1 > " + out).c_str());
  std::string text = testing::readFile(out);
  std::string hex;
  for (char c : text.substr(text.find('=') + 1)) {
    if (std::isxdigit(static_cast<unsigned char>(c))) hex += static_cast<char>(std::tolower(c));
  }
  return hex;
}

TEST_F(TlsSocketTest, StoreLookups) {
  struct Case {
    const char* name;
    std::string store;
    std::string subject;
    std::string thumbprint;
    std::string error;  // prefix; empty for success
  };
  const std::vector<Case> cases = {
      {"subject any case", "server", "cn=LOCALHOST", "", ""},
      {"thumbprint lower case", "server", "nothing", thumbprintOf("server.pem"), ""},
      {"subject missing", "server", "CN=nobody", "",
       "TLS handshake failed: Certficate with subject 'CN=nobody' not found in store "},
      {"thumbprint missing", "server", "", "0011223344556677889900112233445566778899",
       "TLS handshake failed: Certficate with thumbprint "
       "'0011223344556677889900112233445566778899' not found in store "},
      {"thumbprint not hex", "server", "", "12zz",
       "TLS handshake failed: Parse certficate thumbprint '12zz' failed: "},
      {"no such store", "missing", "localhost", "", "TLS handshake failed: CertOpenSystemStore("},
      {"certificate without key", "empty", "localhost", "",
       "TLS handshake failed: Certficate with subject 'localhost' not found in store "},
  };
  run("cp ca.pem server.pem empty/");
  for (const Case& c : cases) {
    TlsSettings settings = serverSettings(c.store, false);
    settings.subject = c.subject;
    settings.thumbprint = c.thumbprint;
    Session session(settings, clientSettings("localhost", false));
    std::string error = session.handshake().first;
    if (c.error.empty()) {
      EXPECT_EQ(error, "(no error)") << c.name;
    } else {
      EXPECT_EQ(error.rfind(c.error, 0), 0u) << c.name << ": " << error;
    }
  }
}

uint16_t freePort() {
  Socket probe(1, testing::loopbackSettings(0));
  probe.listen();
  return probe.localPort();
}

// Connects to a peer that is still starting, retrying refused connections.
void connectWithRetry(Socket& socket) {
  for (int attempt = 0;; ++attempt) {
    try {
      socket.connect();
      return;
    } catch (const SocketError&) {
      socket.close();
      if (attempt == 50) throw;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
  }
}

TEST_F(TlsSocketTest, ClientValidatesRealServers) {
  struct Case {
    const char* name;
    std::string certificate;  // file with certificate and key
    std::string serverName;
    bool validate;
    std::string error;  // substring; empty for success
  };
  run("cat server.pem server.key > good.pem");
  const std::vector<Case> cases = {
      {"valid by name", "good.pem", "localhost", true, ""},
      {"valid by address", "good.pem", "127.0.0.1", true, ""},
      {"wrong name", "good.pem", "example.org", true, "hostname mismatch"},
      {"untrusted issuer", "other/stranger.pem", "localhost", true,
       "unable to get local issuer certificate"},
      {"expired", "expired/expired.pem", "localhost", true, "certificate has expired"},
      {"untrusted but not validated", "other/stranger.pem", "localhost", false, ""},
  };
  for (const Case& c : cases) {
    const uint16_t port = freePort();
    ChildProcess server("openssl s_server -quiet -naccept 1 -accept 127.0.0.1:" +
                            std::to_string(port) + " -cert " + dir + "/" + c.certificate,
                        dir + "/s_server.log");
    Socket socket(1, testing::loopbackSettings(port));
    ASSERT_NO_THROW(connectWithRetry(socket)) << testing::readFile(dir + "/s_server.log");
    TlsSocket tls("client", clientSettings(c.serverName, c.validate), socket);
    std::string error = errorOf([&] { tls.handshake(); });
    if (c.error.empty()) {
      EXPECT_EQ(error, "(no error)") << c.name;
    } else {
      EXPECT_EQ(error.rfind("TLS handshake failed: InitializeSecurityContext() failed: ", 0), 0u)
          << c.name << ": " << error;
      EXPECT_NE(error.find(c.error), std::string::npos) << c.name << ": " << error;
    }
  }
}

TEST_F(TlsSocketTest, ServerMeetsARealClient) {
  struct Case {
    const char* name;
    std::string clientOptions;
    std::string error;  // prefix; empty for success
  };
  const std::vector<Case> cases = {
      {"with client certificate", "-cert " + dir + "/client.pem -key " + dir + "/client.key", ""},
      {"without client certificate", "", "TLS handshake failed: AcceptSecurityContext() failed: "},
  };
  std::ofstream(dir + "/input.txt") << "hello\n";
  for (const Case& c : cases) {
    Socket listener(1, testing::loopbackSettings(0));
    listener.listen();
    ChildProcess client("openssl s_client -no_ign_eof -verify_return_error -CAfile " + dir +
                            "/ca.pem -servername localhost -connect 127.0.0.1:" +
                            std::to_string(listener.localPort()) + " " + c.clientOptions + " <" +
                            dir + "/input.txt",
                        dir + "/s_client.log");
    auto socket = testing::acceptOne(listener);
    TlsSocket tls("server", serverSettings("server", true), *socket);
    std::string error = errorOf([&] { tls.handshake(); });
    if (!c.error.empty()) {
      EXPECT_EQ(error.rfind(c.error, 0), 0u) << c.name << ": " << error;
      continue;
    }
    ASSERT_EQ(error, "(no error)") << c.name;
    std::string received;
    char buffer[64];
    std::string closing = errorOf([&] {
      for (;;) received.append(buffer, tls.read(buffer, sizeof buffer));
    });
    EXPECT_EQ(received, "hello\n");
    EXPECT_EQ(closing.rfind("DecryptMessage() failed: TLS context expired: ", 0), 0u) << closing;
  }
}

}  // namespace
}  // namespace ns::net::tls

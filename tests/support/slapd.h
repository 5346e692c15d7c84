// A real directory server of a test's own: OpenLDAP's slapd on a free port of loopback, in a temporary directory, with
// TLS, as a user without rights. It ends with its owner, and with the test's process however that ends.
//
// What it holds (see Data): people with passwords, groups, hosts with a role, values of every kind, a referral, entries
// whose attributes differ, and as many machines as a test wants.
//
// Whoever asks it with libldap, in this process or another, does so with LDAPNOINIT in the environment: what the
// machine has set for LDAP is not the test's.
#ifndef TESTS_SUPPORT_SLAPD_H
#define TESTS_SUPPORT_SLAPD_H

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/process.h"
#include "support/sockets.h"
#include "support/work_dir.h"

struct SlapdOptions {
    size_t machines = 0;              // entries cn=m0001, cn=m0002 ... below ou=machines
    size_t large_value = 0;           // bytes of the description of cn=large; 0 = no such entry
    bool tls = true;                  // whether StartTLS and ldaps work
    bool logs = false;                // tell every operation, for WaitForOperation; whoever asks for it must read it
    std::string global_lines = {};    // more lines of the configuration, before the database
    std::string database_lines = {};  // and for the database
};

class Slapd {
  public:
    explicit Slapd(SlapdOptions options = {}) : options_(std::move(options))
    {
        WriteFiles();
        Run({"/usr/sbin/slapadd", "-q", "-f", Path("slapd.conf"), "-l", Path("data.ldif")});
        for (int attempt = 0; attempt < 5; attempt++) {  // another process may take the port meanwhile
            if (Start()) {
                return;
            }
        }
        throw std::runtime_error("slapd did not start: " + (server_ != nullptr ? server_->Err() : ""));
    }

    const std::string base = "dc=example,dc=org";
    const std::string anna = "uid=anna,ou=people,dc=example,dc=org";  // password anna-secret
    std::string uri;
    std::string tls_uri;  // ldaps

    pid_t Pid() const { return server_->Pid(); }

    // Wait until it tells of an operation, as 'BIND dn="" method=128'; it takes logs. Told are all up to that one.
    bool WaitForOperation(const std::string &text) { return server_->WaitForLine(text); }
    std::string Operations() const { return server_->Err(); }

    // Neither an answer nor an end of the connection from now on.
    void FallSilent() const { server_->Signal(SIGSTOP); }
    void Stop() { server_->Kill(); }

  private:
    static constexpr char kTellStart[] = "32768";
    static constexpr char kTellOperations[] = "256";

    std::string Path(const char *name) const { return (directory_.path / name).string(); }

    // Root's children become nobody, so that the server has no rights and its files belong to whom it is.
    static std::vector<std::string> AsNobody(const std::vector<std::string> &command)
    {
        std::vector<std::string> all{"--pdeathsig", "KILL"};
        if (geteuid() == 0) {
            all.insert(all.end(), {"--reuid", "65534", "--regid", "65534", "--clear-groups"});
        }
        all.insert(all.end(), command.begin(), command.end());
        return all;
    }

    static void Run(const std::vector<std::string> &command)
    {
        ProcessOptions options;
        options.arguments = AsNobody(command);
        const ProcessResult result = RunProcess("/usr/bin/setpriv", options);
        if (result.status != 0) {
            throw std::runtime_error(command[0] + " (scripts/setup installs it): " + result.err);
        }
    }

    void WriteFiles() const
    {
        std::filesystem::create_directory(directory_.path / "db");
        WriteFile(Path("slapd.conf"), Configuration());
        WriteFile(Path("data.ldif"), Data());
        if (geteuid() == 0) {
            for (const char *name : {"", "db", "slapd.conf", "data.ldif"}) {
                if (chown(Path(name).c_str(), 65534, 65534) != 0) {
                    throw std::runtime_error("no files for nobody");
                }
            }
        }
        if (options_.tls) {
            Run({"/usr/bin/openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                 "-days", "30", "-subj", "/CN=localhost", "-keyout", Path("key.pem"), "-out", Path("cert.pem")});
        }
    }

    bool Start()
    {
        std::string port;
        std::string tls_port;
        {
            const LoopbackListener one;
            const LoopbackListener other;
            port = one.port;
            tls_port = other.port;
        }
        uri = "ldap://127.0.0.1:" + port;
        tls_uri = "ldaps://127.0.0.1:" + tls_port;
        ProcessOptions options;
        options.arguments = AsNobody({"/usr/sbin/slapd", "-d", options_.logs ? kTellOperations : kTellStart, "-f",
                                      Path("slapd.conf"), "-h", options_.tls ? uri + " " + tls_uri : uri});
        server_ = std::make_unique<BackgroundProcess>("/usr/bin/setpriv", options);
        return server_->WaitForLine("slapd starting") && Listens(port);
    }

    // It says that it starts a moment before it listens, and nothing after that.
    static bool Listens(const std::string &port)
    {
        for (int i = 0; i < 1000; i++) {
            try {
                return ConnectLoopback(port).IsOpen();
            } catch (const std::runtime_error &) {
                poll(nullptr, 0, 5);
            }
        }
        return false;
    }

    std::string Configuration() const
    {
        std::string text;
        for (const char *schema : {"core", "cosine", "inetorgperson"}) {
            text += std::string("include /etc/ldap/schema/") + schema + ".schema\n";
        }
        text +=
            "attributetype ( 1.1.2.1.1 NAME 'role' SUP name )\n"
            "modulepath /usr/lib/ldap\n"
            "moduleload back_mdb\n"
            "sizelimit unlimited\n";
        if (options_.tls) {
            text += "TLSCertificateFile " + Path("cert.pem") + "\nTLSCertificateKeyFile " + Path("key.pem") + "\n";
        }
        return text + options_.global_lines + "database mdb\nsuffix \"" + base + "\"\ndirectory " + Path("db") +
               "\nmaxsize 134217728\ndbnosync\n" + options_.database_lines +
               "access to attrs=userPassword by anonymous auth by * none\naccess to * by * read\n";
    }

    static std::string Entry(const std::string &rdn, const std::string &attributes)
    {
        return "dn: " + rdn + ",dc=example,dc=org\n" + attributes + "\n";
    }

    static std::string Unit(const std::string &name)
    {
        return Entry("ou=" + name, "objectClass: organizationalUnit\nou: " + name + "\n");
    }

    std::string Data() const
    {
        std::string text =
            "dn: dc=example,dc=org\nobjectClass: dcObject\nobjectClass: organization\ndc: example\no: Example\n\n";
        for (const char *unit : {"people", "groups", "hosts", "mixed", "referrals", "values", "machines", "empty"}) {
            text += Unit(unit);
        }
        return text + People() + Groups() + Hosts() + Mixed() + Referrals() + Values() + Machines();
    }

    static std::string People()
    {
        return Entry("uid=anna,ou=people",
                     "objectClass: inetOrgPerson\nuid: anna\ncn: Anna Berg\nsn: Berg\nmail: anna@example.org\n"
                     "mail: a.berg@example.org\nmail: postmaster@example.org\nuserPassword: anna-secret\n") +
               Entry("uid=bert,ou=people",
                     "objectClass: inetOrgPerson\nuid: bert\ncn:: QmVydCBTw7hyZW5zZW4=\nsn:: U8O4cmVuc2Vu\n"
                     "mail: bert@example.org\nuserPassword: bert-secret\n") +
               Entry("uid=carl,ou=people", "objectClass: inetOrgPerson\nuid: carl\ncn: Carl Dahl\nsn: Dahl\n");
    }

    static std::string Groups()
    {
        return Entry("cn=admins,ou=groups",
                     "objectClass: groupOfNames\ncn: admins\nmember: uid=anna,ou=people,dc=example,dc=org\n"
                     "member: uid=bert,ou=people,dc=example,dc=org\n");
    }

    static std::string Hosts()
    {
        return Entry("cn=web1,ou=hosts",
                     "objectClass: device\nobjectClass: extensibleObject\ncn: web1\nrole: web_server\n"
                     "description: in the cellar\nl: Oslo\n") +
               Entry("cn=lonely,ou=hosts", "objectClass: device\ncn: lonely\n");
    }

    // Entries whose attributes differ, found in this order, by the length of their names: the first has a serial number
    // and no owner, the second both.
    static std::string Mixed()
    {
        return Entry("cn=first,ou=mixed", "objectClass: device\ncn: first\nserialNumber: 1\n") +
               Entry("cn=second,ou=mixed",
                     "objectClass: device\ncn: second\nserialNumber: 2\nowner: uid=anna,ou=people,dc=example,dc=org\n");
    }

    // A referral that a search meets before the entry beside it, whose name is longer.
    static std::string Referrals()
    {
        return Entry("ou=elsewhere,ou=referrals",
                     "objectClass: referral\nobjectClass: extensibleObject\nou: elsewhere\n"
                     "ref: ldap://127.0.0.1:1/ou=elsewhere,dc=example,dc=org\n") +
               Entry("cn=beside-it-all,ou=referrals", "objectClass: device\ncn: beside-it-all\nserialNumber: 3\n");
    }

    // jpegPhoto holds any bytes: "ab", zero, "cd"; and 0xFF 0xFE 0x80.
    std::string Values() const
    {
        const std::string person = "objectClass: inetOrgPerson\nsn: x\n";
        return Entry("cn=zero,ou=values", person + "cn: zero\njpegPhoto:: YWIAY2Q=\n") +
               Entry("cn=no-utf8,ou=values", person + "cn: no-utf8\njpegPhoto:: //6A\n") +
               Entry("cn=quoted,ou=values", person + "cn: quoted\ndescription: a, b \"c\" and $(d) 100%s\n") +
               (options_.large_value == 0
                    ? ""
                    : Entry("cn=large,ou=values",
                            person + "cn: large\ndescription: " + std::string(options_.large_value, 'x') + "\n"));
    }

    std::string Machines() const
    {
        std::string text;
        for (size_t i = 1; i <= options_.machines; i++) {
            char name[16];
            snprintf(name, sizeof(name), "m%04zu", i);
            text += Entry(std::string("cn=") + name + ",ou=machines",
                          std::string("objectClass: device\ncn: ") + name + "\n");
        }
        return text;
    }

    SlapdOptions options_;
    TemporaryDirectory directory_;
    std::unique_ptr<BackgroundProcess> server_;  // after its directory, so that it ends before that goes
};

#endif

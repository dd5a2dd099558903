"""What keywardctl prints: for people, for programs, for monitoring and for the shell."""

import contextlib
import json
import os
import pty
import re
import subprocess
import time

from cryptography.hazmat.primitives import hashes
from kwtest import Case, certificates, main
from kwtest.device import KEYWARD, SCRIPTS, WORK
from kwtest.operator_tool import CTL, OperatorTool
from kwtest.process import limit

DONE, FAILED, USAGE, NOT_RUNNING, REFUSED = range(5)
DOCUMENTATION = os.path.join(os.path.dirname(__file__), "../../docs/keywardctl-json.md")
COMPLETION = os.path.join(os.path.dirname(__file__), "../../packaging/completion/keywardctl.bash")
WITH_ADDRESS = {"includeFQDN": "yes", "networkInterface.0": "eth0", "includeIPv4.0": "yes", "includeIPv6.0": "yes"}
NETWORK = {"interface.0": "eth0", "ipv4.0.0": "10.0.0.5", "ipv6.0.0": "FD00:0:0::5", "fqdn.0": "unit42.test"}


def compact(value):
    return json.dumps(value, separators=(",", ":")) + "\n"


def whole_bytes(hexadecimal):
    return "0" * (len(hexadecimal) % 2) + hexadecimal


class Output(Case):
    def setUp(self):
        super().setUp()
        self.ctl = OperatorTool(self.device)

    def lines(self, *arguments, expected=DONE):
        status, out, err = self.ctl.run(*arguments, user="operator")
        self.assertEqual(status, expected, err)
        return out.splitlines()

    def names_column(self, service, expected=DONE):
        [line] = [line for line in self.lines("status", service, expected=expected) if line.startswith(service)]
        return line.split(maxsplit=7)[7]


class Status(Output):
    def test_every_kind_of_certificate(self):
        device = self.device
        device.service("pkiroot", cnfFile=device.request_settings("/etc/keywarden/root.cnf", CN="Root",
                                                                  basicConstraints="CA:TRUE"))
        device.service("api", selfSignedGeneration=None, CASignedGeneration="yes", CAServiceId="pkiroot")
        device.service("outside", selfSignedGeneration=None)
        device.service("web", ca="yes", trustedClients="yes")
        device.start()
        pki = certificates.Pki("Root")  # the name alone makes no issuer
        request = self.ctl.run("csr", "outside")[1]
        device.write(f"{WORK}/outside.crt", pki.sign(request.encode(), days=91, start=time.time() - 86400 - 3600))
        self.assertEqual(self.ctl.run("apply", "outside", f"{WORK}/outside.crt")[0], DONE)
        self.assertEqual(self.lines("status"), [
            "SERVICE  STATE    CERTIFICATE  DAYS  REQUEST  CAS  CLIENTS  NAMES",
            "api      running  local CA     29    no       -    -        ok",
            "outside  running  external     89    no       -    -        ok",
            "pkiroot  running  self-signed  29    no       -    -        ok",
            "web      running  self-signed  29    no       0    0        ok"])
        self.assertIn("kind:        local CA (the service pkiroot)", self.lines("show", "api"))

    def test_a_certificate_that_has_ended(self):
        device = self.device
        device.service("web", selfSignedGeneration=None)
        device.start()
        request = self.ctl.run("csr", "web")[1]
        device.write(f"{WORK}/web.crt", certificates.Pki().sign(request.encode(), days=10))
        self.assertEqual(self.ctl.run("apply", "web", f"{WORK}/web.crt")[0], DONE)
        path = f"{KEYWARD}/web/server/{device.active('web')}"
        device.write(path, certificates.Pki().sign(request.encode(), days=10, start=time.time() - 12.5 * 86400))
        self.assertEqual(self.lines("status")[1], "web      running  external     -3    no       -    -        ok")
        self.assertRegex("\n".join(self.lines("show", "web")), r"not after:   .* UTC \(ended\)")

    def test_names_follow_the_network(self):
        device = self.device
        device.network(NETWORK)
        device.service("web", **WITH_ADDRESS)
        device.start()
        self.assertEqual(self.names_column("web"), "ok")
        device.network({**NETWORK, "ipv4.0.1": "10.0.0.77", "fqdn.1": "second.test"})
        self.assertEqual(self.names_column("web"), "differs, missing second.test 10.0.0.77")
        missing = json.loads(self.lines("status", "--json")[0])["services"][0]["names"]
        self.assertEqual(missing, {"state": "differs", "missing": ["second.test", "10.0.0.77"]})
        # What the certificate has beyond the network does not count.
        device.network({"interface.0": "eth0", "fqdn.0": "unit42.test"})
        self.assertEqual(self.names_column("web"), "ok")

    def test_names_are_unknown_where_the_script_may_not_be_run(self):
        device = self.device
        device.service("web", **WITH_ADDRESS)
        device.start()
        os.chmod(device.host(f"{SCRIPTS}/network.sh"), 0o700)
        self.assertEqual(self.names_column("web"), "unknown")
        self.assertEqual(self.ctl.run("status", user="root")[1].splitlines()[1].split(maxsplit=7)[7], "ok")
        device.remove(f"{SCRIPTS}/network.sh")
        self.assertEqual(self.names_column("web"), "unknown")

    def test_colours_are_for_terminals(self):
        self.device.service("web")
        self.device.start()
        green = "\x1b[32mrunning\x1b[0m"
        environment = self.ctl.environment(TERM="xterm")
        self.assertIn(green, self.on_terminal(environment, "status"))
        self.assertNotIn("\x1b", self.on_terminal({**environment, "NO_COLOR": "1"}, "status"))
        self.assertNotIn("\x1b", self.on_terminal({**environment, "TERM": "dumb"}, "status"))
        self.assertNotIn("\x1b", self.on_terminal(environment, "status", "--color", "never"))
        self.assertIn(green, self.on_terminal({**environment, "NO_COLOR": "1"}, "status", "--color=always"))
        self.assertNotIn("\x1b", self.ctl.run("status", environment=environment)[1])
        self.assertIn(green, self.ctl.run("status", "--color=always", environment=environment)[1])

    def on_terminal(self, environment, *arguments):
        master, slave = pty.openpty()
        with subprocess.Popen(self.ctl.command(*arguments), env=environment, stdin=slave, stdout=slave,
                              stderr=slave, cwd="/") as process:
            os.close(slave)
            text = b""
            with contextlib.suppress(OSError):  # the terminal's end
                while chunk := os.read(master, 65536):
                    text += chunk
            os.close(master)
            self.assertEqual(process.wait(limit(20)), DONE, text)
        return text.decode()

    def test_a_reader_that_leaves_is_a_failure_without_a_crash(self):
        self.device.service("web")
        self.device.start()
        reader, writer = os.pipe()
        os.close(reader)
        with subprocess.Popen(self.ctl.command("status"), env=self.ctl.environment(), stdout=writer,
                              stderr=subprocess.PIPE, text=True) as process:
            os.close(writer)
            _, err = process.communicate(timeout=limit(20))
        self.assertEqual((process.returncode, err), (FAILED, "keywardctl: standard output cannot be written\n"))

    def test_names_in_a_certificate_do_not_steer_the_terminal(self):
        device = self.device
        device.service("web", ca="yes")
        device.start()
        device.write(f"{WORK}/ca.pem", certificates.Pki("evil\x1b[2J\nname\u00fc").pem())
        self.assertEqual(self.ctl.run("ca", "add", "web", f"{WORK}/ca.pem")[0], DONE)
        status, out, err = self.ctl.run("ca", "list", "web", user="operator")
        self.assertEqual((status, err), (DONE, ""))
        self.assertTrue(out.endswith("  evil?[2J?name\u00fc\n"), out)
        listing = json.loads(self.lines("ca", "list", "web", "--json")[0])
        self.assertEqual(listing["certificates"][0]["common_name"], "evil\x1b[2J\nname\u00fc")


class Json(Output):
    def setUp(self):
        super().setUp()
        self.device.network(NETWORK)
        self.device.service("web", ca="yes", **WITH_ADDRESS)
        self.device.service("idle", selfSignedGeneration=None)
        self.device.start()
        self.own = self.certificate("web")
        self.id = self.device.active("web")
        self.path = f"{KEYWARD}/web/server/{self.id}"

    def output(self, *arguments):
        status, out, err = self.ctl.run(*arguments, user="operator")
        self.assertEqual((status, err), (DONE, ""))
        return out

    def days_left(self, certificate):
        return int((certificates.seconds(certificate.not_valid_after) - time.time()) // 86400)

    def installed(self):
        return int(os.stat(self.device.host(self.path)).st_mtime)

    def facts(self, certificate, name, names):
        dns = [value for kind, value in names if kind == "DNS"]
        ips = [value for kind, value in names if kind == "IP"]
        subject = f"C=DE, ST=BY, L=Hof, O=Acme, OU=Ops, CN={name}" if name == "device.test" else f"CN={name}"
        return {"common_name": name, "subject": subject, "issuer": subject,
                "serial": whole_bytes(f"{certificate.serial_number:X}"),
                "key": "EC 256 bits", "signature": "ecdsa-with-SHA256",
                "sha256": certificate.fingerprint(hashes.SHA256()).hex(),
                "not_before": certificates.seconds(certificate.not_valid_before),
                "not_after": certificates.seconds(certificate.not_valid_after),
                "days_left": self.days_left(certificate), "is_ca": name != "device.test", "is_self_signed": True,
                "dns": dns, "ips": ips}

    def test_status(self):
        own = {"id": self.id, "kind": "self_signed", "issued_by": None,
               "not_before": certificates.seconds(self.own.not_valid_before),
               "not_after": certificates.seconds(self.own.not_valid_after), "days_left": self.days_left(self.own),
               "installed_at": self.installed()}
        web = {"service": "web", "state": "running", "certificate": own, "names": {"state": "ok", "missing": []},
               "request_pending": False, "ca_certificates": 0, "client_certificates": None, "problems": []}
        idle = {"service": "idle", "state": "running", "certificate": None,
                "names": {"state": "none", "missing": []}, "request_pending": False, "ca_certificates": None,
                "client_certificates": None, "problems": []}
        self.assertEqual(self.output("status", "--json"),
                         compact({"version": 1, "daemon_running": True, "services": [idle, web]}))
        self.assertEqual(self.output("status", "web", "--json"),
                         compact({"version": 1, "daemon_running": True, "services": [web]}))

    def test_a_certificate(self):
        facts = self.facts(self.own, "device.test", certificates.alternative_names(self.own))
        self.assertEqual(self.output("show", "web", "--json"), compact(
            {"version": 1, "service": "web",
             "certificate": {"id": self.id, "path": self.path, "kind": "self_signed", "issued_by": None, **facts,
                             "installed_at": self.installed()}}))

    def test_a_trusted_one(self):
        pki = certificates.Pki()
        # Not made this second: the days that are left must not change under the test.
        pki.certificate = pki._signed(pki.name, pki.key.public_key(), start=time.time() - 90000, is_ca=True)
        self.device.write(f"{WORK}/ca.pem", pki.pem())
        name = self.output("ca", "add", "web", f"{WORK}/ca.pem").strip()
        one = {"id": name, "path": f"{KEYWARD}/web/ca/{name}", **self.facts(pki.certificate, "Outside CA", [])}
        head = {"version": 1, "service": "web", "store": "ca"}
        self.assertEqual(self.output("ca", "list", "web", "--json"), compact({**head, "certificates": [one]}))
        self.assertEqual(self.output("ca", "show", "web", name, "--json"), compact({**head, "certificate": one}))
        self.assertEqual(self.output("show", "web", "--ca", name, "--json"), compact({**head, "certificate": one}))

    def test_a_request(self):
        self.output("csr", "web")
        path = f"{KEYWARD}/web/server/.cacheddata/csr.csr"
        self.assertEqual(self.output("show", "web", "--request", "--json"), compact(
            {"version": 1, "service": "web",
             "request": {"path": path, "subject": "C=DE, ST=BY, L=Hof, O=Acme, OU=Ops, CN=device.test",
                         "key": "EC 256 bits", "dns": ["unit42.test", "10.0.0.5", "FD00:0:0::5"],
                         "ips": ["10.0.0.5", "fd00::5"],
                         "created_at": int(os.stat(self.device.host(path)).st_mtime)}}))


class Documentation(Output):
    """docs/keywardctl-json.md against what is printed."""

    def setUp(self):
        super().setUp()
        with open(DOCUMENTATION, encoding="utf-8") as file:
            self.text = file.read()
        self.device.service("web", ca="yes")
        self.device.start()

    def shape(self, value):
        """The names of all members, in their order."""
        if isinstance(value, dict):
            return [(name, self.shape(member)) for name, member in value.items()]
        return self.shape(value[0]) if isinstance(value, list) and value and isinstance(value[0], dict) else None

    def test_the_examples_have_the_members_that_are_printed(self):
        self.ctl.run("csr", "web")
        commands = [("status", "--json"), ("show", "web", "--json"), ("ca", "list", "web", "--json"),
                    ("show", "web", "--request", "--json")]
        examples = re.findall(r"^```json\n(.*?)\n```$", self.text, re.MULTILINE | re.DOTALL)
        self.assertEqual(len(examples), len(commands))
        for command, example in zip(commands, examples):
            printed = json.loads(self.lines(*command)[0])
            self.assertEqual(self.shape(json.loads(example)), self.shape(printed), command)
            self.assertNotIn(" ", example.replace("C=DE, CN=unit42", "").replace("EC 256 bits", ""))

    def test_every_metric_is_described(self):
        described = re.findall(r"^\| `(keyward_\w+)`", self.text, re.MULTILINE)
        exported = re.findall(r"^# HELP (\w+)", self.ctl.run("export", "prometheus")[1], re.MULTILINE)
        self.assertEqual(sorted(described), sorted(exported))


class Prometheus(Output):
    SAMPLE = re.compile(r'([a-z_]+)(?:\{((?:[a-z]+="(?:[^"\\\n]|\\["\\n])*",?)*)\})? (-?\d+(?:\.\d+)?)')

    def samples(self, text):
        """Reads the file as its collector does, strictly: help, type, samples of that name."""
        self.assertTrue(text.endswith("\n"))
        found, name, described = {}, None, set()
        for line in text.splitlines():
            if line.startswith("# HELP "):
                name = line.split(" ")[2]
                self.assertNotIn(name, described)
                described.add(name)
            elif line.startswith("# TYPE "):
                self.assertEqual(line, f"# TYPE {name} gauge")
            else:
                match = self.SAMPLE.fullmatch(line)
                self.assertTrue(match and match[1] == name, line)
                self.assertNotIn((match[1], match[2]), found)
                found[match[1], match[2]] = float(match[3])
        return found

    def test_the_whole_device(self):
        device = self.device
        device.service("web", ca="yes", trustedClients="yes", **WITH_ADDRESS)
        device.service("idle", selfSignedGeneration=None)
        device.start()
        device.write(f"{WORK}/ca.pem", certificates.Pki().pem())
        self.ctl.run("ca", "add", "web", f"{WORK}/ca.pem")
        self.ctl.run("csr", "idle")
        status, out, err = self.ctl.run("export", "prometheus", user="operator")
        self.assertEqual((status, err), (DONE, ""))
        samples = self.samples(out)
        own = self.certificate("web")
        end = certificates.seconds(own.not_valid_after)
        path = device.host(f"{KEYWARD}/web/server/{device.active('web')}")
        self.assertAlmostEqual(samples.pop(("keyward_certificate_days_left", 'service="web"')),
                               (end - time.time()) / 86400, delta=0.01)
        self.assertEqual(samples, {
            ("keyward_up", None): 1,
            ("keyward_service_running", 'service="idle"'): 1,
            ("keyward_service_running", 'service="web"'): 1,
            ("keyward_certificate_not_before_seconds", 'service="web"'): certificates.seconds(own.not_valid_before),
            ("keyward_certificate_not_after_seconds", 'service="web"'): end,
            ("keyward_certificate_info", 'service="idle",kind="none",id=""'): 1,
            ("keyward_certificate_info", f'service="web",kind="self_signed",id="{device.active("web")}"'): 1,
            ("keyward_last_renewal_seconds", 'service="web"'): int(os.stat(path).st_mtime),
            ("keyward_certificate_names_match", 'service="web"'): 1,
            ("keyward_request_pending", 'service="idle"'): 1,
            ("keyward_request_pending", 'service="web"'): 0,
            ("keyward_store_certificates", 'service="web",store="ca"'): 1,
            ("keyward_store_certificates", 'service="web",store="client"'): 0,
        })

    def test_a_file_is_replaced_at_one_go(self):
        self.device.service("web")
        self.device.start()
        target = f"{WORK}/keyward.prom"
        self.device.write(target, "old\n", mode=0o600)
        before = os.stat(self.device.host(target)).st_ino
        with open(self.device.host(target), "rb") as reader:
            self.assertEqual(self.ctl.run("export", "prometheus", "-o", target), (DONE, "", ""))
            self.assertEqual(reader.read(), b"old\n")
        self.assertNotEqual(os.stat(self.device.host(target)).st_ino, before)
        self.assertEqual(self.device.rights(target), ("-", 0o644, "root", "root"))
        self.assertEqual(self.samples(self.device.read(target).decode())["keyward_up", None], 1)
        self.assertEqual([name for name in self.device.listing(WORK) if "prom" in name], ["keyward.prom"])

    def test_a_daemon_that_is_gone_is_a_result(self):
        self.device.service("web")
        self.device.start()
        self.device.stop()
        status, out, err = self.ctl.run("export", "prometheus")
        self.assertEqual((status, err), (DONE, ""))
        samples = self.samples(out)
        self.assertEqual((samples["keyward_up", None], samples["keyward_service_running", 'service="web"']), (0, 0))
        self.assertIn(("keyward_certificate_days_left", 'service="web"'), samples)

    def test_a_folder_that_is_not_there(self):
        self.device.service("web")
        status, out, err = self.ctl.run("export", "prometheus", "-o", "/nowhere/keyward.prom")
        self.assertEqual((status, out), (FAILED, ""))
        self.assertIn("'/nowhere/keyward.prom': No such file or directory", err)

    def test_devices_are_written_not_replaced(self):
        self.device.service("web")
        before = os.lstat(self.device.host("/dev/null")).st_ino
        self.assertEqual(self.ctl.run("export", "prometheus", "-o", "/dev/null")[0], DONE)
        self.assertEqual(os.lstat(self.device.host("/dev/null")).st_ino, before)
        self.assertEqual(self.ctl.run("export", "prometheus", "-o", "/dev/full")[0], FAILED)


class Completion(Output):
    """The shell's own completion, driven by hand: what it would offer for a line that is being typed."""

    def setUp(self):
        super().setUp()
        if not self.device.root.namespace:
            self.skipTest("there is no bash in the chroot")
        self.device.service("web", ca="yes")
        self.device.service("api")
        with open(COMPLETION, encoding="utf-8") as file:
            self.device.write("/etc/keywardctl.bash", file.read())

    def offered(self, line):
        *words, current = [CTL, *line.split(" ")]
        script = ('set -eu; . /etc/keywardctl.bash; complete -p keywardctl >/dev/null\n'
                  'COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); COMPREPLY=(); _keywardctl\n'
                  'printf "%s\\n" "${COMPREPLY[@]-}"')
        status, out, err = self.ctl.run("-c", script, "bash", *words, current, program="/bin/bash", user="operator")
        self.assertEqual((status, err), (0, ""))
        return out.split()

    def test_commands_options_services_and_files(self):
        self.assertEqual(self.offered("re"), ["renew", "revoke", "reload"])
        self.assertEqual(self.offered("status "), ["api", "web"])
        self.assertEqual(self.offered("status --json w"), ["web"])
        self.assertEqual(self.offered("--timeout 5 csr a"), ["api"])
        self.assertEqual(self.offered("status --color "), ["auto", "always", "never"])
        self.assertEqual(self.offered("csr web --n"), ["--no-ip"])
        self.assertEqual(self.offered("ca "), ["add", "list", "show", "remove"])
        self.assertEqual(self.offered("client add "), ["api", "web"])
        self.assertEqual(self.offered("notify n"), ["network"])
        self.assertEqual(self.offered("export "), ["prometheus"])
        self.assertEqual(sorted(self.offered("apply web /etc/keywarden/ser")),
                         ["/etc/keywarden/service.cnf", "/etc/keywarden/services"])
        self.assertEqual(self.offered("status web "), [])

    def test_every_command_of_the_help_is_offered(self):
        listed = self.ctl.run("--help")[1].split("Subcommands:\n")[1].split("\n\n")[0]
        self.assertEqual(sorted(self.offered("")), sorted(re.findall(r"^  (\S+) ", listed, re.MULTILINE)))

    def test_ids_of_stored_certificates(self):
        self.device.start()
        self.device.write(f"{WORK}/ca.pem", certificates.Pki().pem())
        name = self.ctl.run("ca", "add", "web", f"{WORK}/ca.pem")[1].strip()
        for line in ("ca show web ", "ca remove web ", f"ca remove web {name} ", "show web --ca "):
            self.assertEqual(self.offered(line), [name])
        self.assertEqual(self.offered("client show web "), [])


if __name__ == "__main__":
    main()

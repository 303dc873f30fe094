"""A Postfix of its own for the demo and the tests: on the loopback interface, with a certificate made for it and one user
(ada, s3cret), it keeps all mail in a folder and ends with who started it. Only root can start it."""

import contextlib
import ctypes
import os
import pwd
import re
import signal
import socket
import subprocess

MASTER = "/usr/lib/postfix/sbin/master"
PARENT_DEATH_SIGNAL, CHILD_SUBREAPER = 1, 36  # of prctl
MAIN = """queue_directory = {0}/queue
data_directory = {0}/data
maillog_file = /dev/stdout
local_recipient_maps =
smtpd_relay_restrictions = reject_unauth_destination
virtual_mailbox_domains = host.example
virtual_mailbox_base = {0}/box
virtual_mailbox_maps = static:all/
virtual_uid_maps = static:{1.pw_uid}
virtual_gid_maps = static:{1.pw_gid}
smtpd_tls_cert_file = {0}/server.pem
smtpd_tls_key_file = {0}/server.pem
smtpd_tls_auth_only = yes
smtpd_tls_received_header = yes
smtpd_sasl_authenticated_header = yes
cyrus_sasl_config_path = {0}/sasl
smtpd_sasl_local_domain = host.example
"""
SERVICES = """127.0.0.1:{0} inet n - n - - smtpd
127.0.0.1:{1} inet n - n - - smtpd -o smtpd_discard_ehlo_keywords=chunking
127.0.0.1:{2} inet n - n - - smtpd -o smtpd_tls_security_level=encrypt -o smtpd_sasl_auth_enable=yes
    -o smtpd_client_restrictions=permit_sasl_authenticated,reject
127.0.0.1:{3} inet n - n - - smtpd -o smtpd_tls_wrappermode=yes -o smtpd_sasl_auth_enable=yes
    -o smtpd_client_restrictions=permit_sasl_authenticated,reject -o smtpd_discard_ehlo_keywords=chunking
anvil unix - - n - 1 anvil
cleanup unix n - n - 0 cleanup
postlog unix-dgram n - n - 1 postlogd
qmgr unix n - n 300 1 qmgr
rewrite unix - - n - - trivial-rewrite
tlsmgr unix - - n 1000? 1 tlsmgr
virtual unix - n n - - virtual
"""


@contextlib.contextmanager
def postfix(folder, settings=""):
    """Gives its four ports, for plain connections with and without chunking, STARTTLS and TLS, and its log. `settings` are
    further lines of main.cf."""
    owner = pwd.getpwnam("postfix")
    folder.chmod(0o755)
    (folder / "queue/pid").mkdir(parents=True)
    for name in ("active", "corrupt", "defer", "deferred", "incoming", "private", "public", "../data", "../box"):
        (folder / "queue" / name).mkdir()
        os.chown(folder / "queue" / name, owner.pw_uid, owner.pw_gid)
    (folder / "main.cf").write_text(MAIN.format(folder, owner) + settings)
    (folder / "sasl").mkdir()
    (folder / "sasl/smtpd.conf").write_text(f"pwcheck_method: auxprop\nauxprop_plugin: sasldb\n"
                                            f"sasldb_path: {folder}/sasl/db\nmech_list: PLAIN LOGIN CRAM-MD5\n")
    subprocess.run(["saslpasswd2", "-p", "-c", "-f", folder / "sasl/db", "-u", "host.example", "ada"],
                   input=b"s3cret", check=True)
    os.chown(folder / "sasl/db", owner.pw_uid, owner.pw_gid)
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days",
                    "2", "-subj", "/CN=localhost", "-addext", "subjectAltName=DNS:localhost", "-keyout",
                    folder / "key.pem", "-out", folder / "certificate.pem"], check=True, capture_output=True)
    (folder / "server.pem").write_bytes((folder / "key.pem").read_bytes() + (folder / "certificate.pem").read_bytes())
    held = [socket.socket() for _ in range(4)]  # nobody else gets their ports, but who listens may share them
    for each in held:
        each.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        each.bind(("127.0.0.1", 0))
    ports = [each.getsockname()[1] for each in held]
    (folder / "master.cf").write_text(SERVICES.format(*ports))
    libc = ctypes.CDLL(None)
    libc.prctl(CHILD_SUBREAPER, 1)  # what the server leaves behind becomes a child of this process
    master = subprocess.Popen([MASTER, "-c", folder, "-s"], stdout=subprocess.PIPE, text=True,
                              preexec_fn=lambda: libc.prctl(PARENT_DEATH_SIGNAL, signal.SIGTERM))
    try:
        yield ports, master.stdout
    finally:
        master.terminate()
        master.communicate()
        with contextlib.suppress(ChildProcessError):
            while os.wait():
                pass


def read_until(pattern, count, log):
    entries = ""
    while len(re.findall(pattern, entries)) < count:
        line = log.readline()
        entries += line
        assert line, f"Postfix has ended:\n{entries}"
    return entries

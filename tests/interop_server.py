"""interop_server.py ADDRESS DIRECTORY USER: a public server, with the commands that a listing needs as an IBM i
answers them. The password stands in the environment variable PASSPHRASE."""

import os
import sys

from pyftpdlib.authorizers import DummyAuthorizer
from pyftpdlib.handlers import FTPHandler
from pyftpdlib.servers import FTPServer

ADDED = {"perm": None, "auth": True, "arg": True, "help": "as on an IBM i"}


class Handler(FTPHandler):
    # More than 75 characters go out as a greeting of two lines, in two segments.
    banner = "QTCP at LOCALHOST. " + "Connection will close if idle more than 5 minutes. " * 2
    proto_cmds = {**FTPHandler.proto_cmds, "TIME": ADDED, "SITE LISTFMT": ADDED, "SITE NAMEFMT": ADDED}
    list_format = name_format = "0"

    def ftp_SYST(self, line):
        self.respond('215  OS/400 is the remote operating system. The TCP/IP version is "V7R3M0".')

    def ftp_TIME(self, line):
        self.push("250-Timeouts of this session changed.\r\n")
        self.respond("250 TIME " + line)

    def ftp_SITE_LISTFMT(self, line):
        self.list_format = line
        self.respond("250 Directory listing format (LISTFMT) option set to %s." % line)

    def ftp_SITE_NAMEFMT(self, line):
        self.name_format = line
        self.respond('250  Now using naming format "%s".' % line)

    def ftp_LIST(self, path):
        if (self.list_format, self.name_format) == ("1", "1"):
            return super().ftp_LIST(path)
        self.respond("550 Only format 1 has these columns and paths.")


address, directory, user = sys.argv[1:]
Handler.authorizer = DummyAuthorizer()
Handler.authorizer.add_user(user, os.environ["PASSPHRASE"], directory, perm="elradfmw")
FTPServer((address, 21), Handler).serve_forever()

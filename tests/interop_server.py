#!/usr/bin/python3
"""A public server library with the few commands added that a listing needs, as an IBM i answers them.

interop_server.py ADDRESS DIRECTORY USER reads the password from the environment variable PASSPHRASE and serves
until it is killed.
"""

import os
import sys

from pyftpdlib.authorizers import DummyAuthorizer
from pyftpdlib.handlers import FTPHandler
from pyftpdlib.servers import FTPServer


def command(permission, argument, help_text):
    return {"perm": permission, "auth": True, "arg": argument, "help": help_text}


class Handler(FTPHandler):
    # More than 75 characters: goes out as a multi-line greeting, each line in a segment of its own.
    banner = "QTCP at LOCALHOST. " + "Connection will close if idle more than 5 minutes. " * 2
    proto_cmds = {
        **FTPHandler.proto_cmds,
        "TIME": command(None, True, "Syntax: TIME idle transfer"),
        "SITE LISTFMT": command(None, True, "Syntax: SITE LISTFMT 1"),
        "SITE NAMEFMT": command(None, True, "Syntax: SITE NAMEFMT 1"),
    }
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

    # In the other formats a line has other columns, and a path other separators.
    def ftp_LIST(self, path):
        if (self.list_format, self.name_format) != ("1", "1"):
            return self.respond("550 This server lists in format 1 only.")
        return super().ftp_LIST(path)


address, directory, user = sys.argv[1:]
Handler.authorizer = DummyAuthorizer()
Handler.authorizer.add_user(user, os.environ["PASSPHRASE"], directory, perm="elradfmw")
FTPServer((address, 21), Handler).serve_forever()

// Every text that the server sends, once. Substitute fills in &1, &2 and so on, as in the message descriptions of a
// real server. Replies to FTP commands include their code. Messages of control language commands do not: the session
// sends a completion message after "250 ", and an escape message in the second line of RemoteFailed.

#pragma once

#include <initializer_list>
#include <string>
#include <string_view>

namespace rehearsal {

// Returns the text with &1 to &9 replaced by the arguments.
std::string Substitute(std::string_view text, std::initializer_list<std::string> arguments);

// Whether `word` is in `words`, a list separated by blanks.
bool IsListed(std::string_view word, std::string_view words);

namespace text {

// FTP replies
inline constexpr char Greeting[] = "220-QTCP at REHEARSAL.\r\n"
                                   "220 Connection will close if idle more than 5 minutes.";
inline constexpr char NoService[] = "421 Service not available: &1.";
inline constexpr char EnterPassword[] = "331 Enter password.";
inline constexpr char LoggedOn[] = "230 &1 logged on.";
inline constexpr char LogonRejected[] = "530 Log on attempt by user &1 rejected.";
inline constexpr char NotLoggedOn[] = "530 Not logged on.";
inline constexpr char UnknownCommand[] = "501 &1 unsuccessful; specified subcommand not recognized.";
inline constexpr char BadParameter[] = "501 &1 unsuccessful; parameter not valid.";
inline constexpr char System[] = "215  OS/400 is the remote operating system. The TCP/IP version is \"&1\".";
inline constexpr char CurrentDirectory[] = "250 \"&1\" is current directory.";
inline constexpr char TimeSet[] = "250 Inactivity time-out set to &1 seconds.";
inline constexpr char TypeAscii[] = "200 Representation type is ASCII nonprint.";
inline constexpr char TypeImage[] = "200 Representation type is binary IMAGE.";
inline constexpr char Structure[] = "250 Data structure is File.";
inline constexpr char Mode[] = "250 Data transfer mode is Stream.";
inline constexpr char ListFormat[] = "250 Directory listing format (LISTFMT) option set to &1.";
inline constexpr char NameFormat[] = "250  Now using naming format \"&1\".";
inline constexpr char Passive[] = "227 Entering Passive Mode (&1).";
inline constexpr char NoDataConnection[] = "425 Not able to open data connection.";
inline constexpr char DataBroken[] = "426 Data connection closed; transfer ended.";
inline constexpr char ListStarted[] = "125 List started.";
inline constexpr char ListCompleted[] = "250 List completed.";
inline constexpr char NoPath[] = "550  Path does not exist: &1";
inline constexpr char Retrieving[] = "150 Retrieving file &1";
inline constexpr char Sending[] = "150 Sending file to &1";
inline constexpr char TransferCompleted[] = "250 File transfer completed successfully.";
inline constexpr char NoFile[] = "550  Unable to find file &1";
inline constexpr char NotWritable[] = "550  Unable to open file &1";
inline constexpr char WantsImage[] = "550  Save file transfer requires TYPE I: &1";
inline constexpr char DirectoryMade[] = "257 \"&1\" directory created.";
inline constexpr char DirectoryNotMade[] = "550  Directory not created: &1";
inline constexpr char AuthAccepted[] = "234 Security mechanism accepted.";
inline constexpr char BufferSize[] = "200 Protection buffer size set to 0.";
inline constexpr char DataProtected[] = "200 Data connections are protected.";
inline constexpr char WantsTls[] = "534 &1 requires a protected connection.";
inline constexpr char NotResumed[] = "522 TLS on the data connection failed, or does not resume a session.";
inline constexpr char Goodbye[] = "221 QUIT subcommand received.";
inline constexpr char RemoteDone[] = "250 &1";
inline constexpr char RemoteFailed[] = "550-Error occurred on command &1\r\n550 &2.";
inline constexpr char RemoteTooLong[] = "501 RCMD unsuccessful; command longer than 1000 characters.";

// Control language
inline constexpr char NoCommand[] = "Command &1 in library *LIBL not found.";
inline constexpr char NoKeyword[] = "Keyword &1 not valid for this command.";
inline constexpr char TwiceKeyword[] = "Keyword &1 specified more than once.";
inline constexpr char WantsParameter[] = "Parameter &1 required.";
inline constexpr char BadValue[] = "Value '&1' for parameter &2 not valid.";
inline constexpr char BadName[] = "Value '&1' for parameter &2 not a valid name.";
inline constexpr char NoParenthesis[] = "Matching parenthesis not found.";
inline constexpr char NoApostrophe[] = "Matching apostrophe not found.";
inline constexpr char BadSyntax[] = "Error found on &1 command.";

// Save files
inline constexpr char FileCreated[] = "File &1 created in library &2.";
inline constexpr char FileNotCreated[] = "File &1 not created in library &2.";
inline constexpr char FileCleared[] = "File &1 in library &2 cleared.";
inline constexpr char FileMissing[] = "File &1 in library &2 not found.";
inline constexpr char NoData[] = "Save file &1 in &2 contains no data.";
inline constexpr char WrongKind[] = "Save file &1 in &2 not valid for &3.";
inline constexpr char Damaged[] = "Save file &1 in &2 is damaged.";

// Save and restore
inline constexpr char ObjectMissing[] = "Object &1 not found.";
inline constexpr char LibraryMissing[] = "Library &1 not found.";
inline constexpr char ObjectNotAllowed[] = "Object &1 cannot be saved or restored with &2.";
inline constexpr char Saved[] = "&1 objects saved.";
inline constexpr char SavedPartly[] = "&1 objects saved. &2 objects not saved.";
inline constexpr char LibrarySaved[] = "&1 objects saved from library &3.";
inline constexpr char LibrarySavedPartly[] = "&1 objects saved from &3. &2 objects not saved.";
inline constexpr char DocumentsSaved[] = "&1 document library objects saved.";
inline constexpr char DocumentsSavedPartly[] = "&1 document library objects saved. &2 not saved.";
inline constexpr char Nothing[] = "No objects saved or restored.";
inline constexpr char NothingInLibrary[] = "No objects saved or restored for library &1.";
inline constexpr char PrecheckFailed[] = "Preliminary check failed for &1 objects. No objects saved.";
inline constexpr char Restored[] = "&1 objects restored.";
inline constexpr char RestoredPartly[] = "&1 objects restored. &2 not restored.";
inline constexpr char NotAllRestored[] = "Not all objects restored. &1 restored, &2 not.";
inline constexpr char LibraryRestored[] = "&1 objects restored from &3 to &4.";
inline constexpr char LibraryRestoredPartly[] = "&1 objects restored. &2 not restored to &4.";
inline constexpr char DocumentsRestored[] = "&1 document library objects restored.";
inline constexpr char DocumentsRestoredPartly[] = "&1 document library objects restored. &2 not restored.";
inline constexpr char AuthorityRestored[] = "Authority restored for all user profiles.";

} // namespace text
} // namespace rehearsal

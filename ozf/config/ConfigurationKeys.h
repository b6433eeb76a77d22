// The keys of tq.conf.
//
// This table is the one place that knows what they are called, what they may be, what
// holds without them and what they are for. The reader, its check, --dump-config and
// the manual go by it. Whoever reads a key asks for it by name, which the compiler
// looks up: getConfiguration()->getInteger(configKey("LOG_LEVEL"), level). A key that
// is asked for whenever it is needed holds from a reload on; one that is asked for
// once says KeyHolds::FROM_START, and a reload leaves it as it is.

#pragma once

#include "ozf/config/ConfigurationKey.h"
#include "ozf/config/HostRole.h"

#include <cstdint>
#include <limits>

namespace Quillon::Tessarine::Ozf
{

inline constexpr long MOST_OF_32_BITS = std::numeric_limits<std::int32_t>::max();

// The explorers of the default library, and how often they run, in seconds.
inline constexpr KeyPart DEFAULT_EXPLORERS[] = {
    {"filesystem", 300}, {"host", 3600},      {"listener", 300}, {"network", 300},
    {"service", 60},     {"software", 21600}, {"volume", 86400},
};

// All that can be turned off, with 1 for those that are on when nothing is said. What
// scripts, which are one of them, do when is said beside each.
inline constexpr KeyPart SWITCHED_EXPLORERS[] = {
    {"filesystem", 1}, {"host", 1},    {"listener", 1}, {"network", 1},
    {"scripts", 1},    {"service", 1}, {"software", 1}, {"volume", 1},
};

inline constexpr KeyPart EXPLORERS_WITH_SECRETS[] = {{"host", 0}};

inline constexpr KeyPart KNOWN_PORTS[] = {{DISCOVERY_SERVICE, DISCOVERY_PORT}};

// In the order of the manual. What begins with LIMIT_ is what peers may have of this
// service, in all and each (Limits.h); where 0 is allowed there it is no limit.
inline constexpr ConfigurationKey CONFIGURATION_KEYS[] = {
    {.name = "SERVER",
     .kind = KeyKind::HOST,
     .holds = KeyHolds::WITHIN_ROLE,
     .value = "_HOST_",
     .text = "The name or address of the master. A host is the master itself when its own name, or "
             "one of its addresses, is that of *SERVER*."},
    {.name = "MASTERS",
     .kind = KeyKind::HOSTS,
     .use = KeyUse::AS_LIST,
     .value = "_HOST_[, _HOST_...]",
     .text = "The masters that *tqdiscoctl* asks, side by side, with commands that read, and that "
             "*tqdiscoctl which-master* chooses among; 16 at most, *SERVER* when it is absent. "
             "One with a port of its own has it in *HOST_PORT.* The service itself goes by "
             "*SERVER* alone."},
    {.name = "CLIENT_NAME",
     .kind = KeyKind::HOST_NAME,
     .holds = KeyHolds::FROM_START,
     .value = "_HOST_",
     .text =
         "This host's own name, under which it reports; the system's host name when it is absent."},
    {.name = "REPORT_CLIENT_DISCOVERIES",
     .kind = KeyKind::BOOLEAN,
     .holds = KeyHolds::FROM_START,
     .number = 1,
     .value = "_yes_ | _no_",
     .text = "Whether the service runs on this host at all. Here as in all such keys true and "
             "false, on and off, 1 and 0 do as well."},
    {.name = "LOG_LEVEL",
     .kind = KeyKind::NUMBER,
     .low = 0,
     .high = 6,
     .number = 1,
     .value = "_NUMBER_",
     .text = "0 nothing, 1 errors and notable events, 4 detail, 6 fine detail."},
    {.name = "LOG_FILE",
     .kind = KeyKind::LOG_FILE,
     .word = "stderr",
     .value = "_PATH_ | stderr | syslog",
     .text = "An absolute path; the file is turned over at 10 MiB, and five old ones are kept. "
             "Under the unit stderr is the journal."},
    {.name = "AUDIT_FILE",
     .kind = KeyKind::PATH,
     .value = "_PATH_",
     .text = "An absolute path: a file of lines of JSON, one for each discovery that a peer "
             "stored, explorer that it announced, control call and refusal. It is turned over as "
             "the log file is, and opened anew at a reload. There is none when it is absent."},
    {.name = "LOG_EXCEPT",
     .kind = KeyKind::LOG_PATTERN,
     .use = KeyUse::AS_LIST,
     .value = "_PATTERN_",
     .text = "Lines whose texts match are kept out of the log, whatever their level. \\* stands "
             "for any text, and a text ends with its place in the sources, so that a pattern "
             "usually ends in \\*. A line an hour for each pattern says how many they were. "
             "*tqdisco --debug* takes no notice of it."},
    {.name = "EXPLORER.",
     .part = "explorer",
     .kind = KeyKind::BOOLEAN,
     .holds = KeyHolds::FROM_START,
     .number = 1,
     .parts = SWITCHED_EXPLORERS,
     .hasNoOtherParts = true,
     .value = "_yes_ | _no_",
     .text = "Whether an explorer of the product runs on this host; scripts stands for all of "
             "explorers.d. Without service, *tqdiscoctl status* takes the host for silent."},
    {.name = "EXPLORER_INTERVAL.",
     .part = "explorer",
     .kind = KeyKind::SPAN,
     .parts = DEFAULT_EXPLORERS,
     .hasNoOtherParts = true,
     .hasNumbersOfParts = true,
     .value = "_SPAN_",
     .text = "How often it runs, as 90s, 15m, 1h or 2d; of volume, which runs when it is asked, "
             "how often it tells what can be asked for."},
    {.name = "EXPLORER_EXPIRY.",
     .part = "explorer",
     .kind = KeyKind::SPAN,
     .parts = DEFAULT_EXPLORERS,
     .hasNoOtherParts = true,
     .value = "_SPAN_",
     .text = "How long what it found holds; a quarter longer than the interval when it is absent. "
             "A shorter span leaves the host without these facts until the next run."},
    {.name = "EXPLORER_SECRETS.",
     .part = "explorer",
     .kind = KeyKind::BOOLEAN,
     .holds = KeyHolds::FROM_START,
     .parts = EXPLORERS_WITH_SECRETS,
     .hasNoOtherParts = true,
     .value = "_yes_ | _no_",
     .text = "Whether it also tells what only root may read on the host: of host, the serial "
             "number and the identifier that the machine's maker gave it."},
    {.name = "ORB_PORT.",
     .part = "service",
     .kind = KeyKind::NUMBER,
     .holds = KeyHolds::FROM_START,
     .low = 1,
     .high = 65535,
     .parts = KNOWN_PORTS,
     .hasNumbersOfParts = true,
     .value = "_PORT_",
     .text = "The TCP port of a service. That of the discovery service is "
             "*ORB_PORT.DiscoveryService*; without it the system's services database is asked "
             "before the default holds. All hosts must agree on it."},
    {.name = "ORB_BIND",
     .kind = KeyKind::OWN_ADDRESS,
     .use = KeyUse::AS_LIST,
     .holds = KeyHolds::FROM_START,
     .value = "_ADDRESS_",
     .text = "An address to listen on; all addresses of the host when it is absent."},
    {.name = "CORE_DUMPS",
     .kind = KeyKind::BOOLEAN,
     .value = "_yes_ | _no_",
     .text = "Whether a crash may leave a core dump behind where TLS is on, or *tqdiscoweb* has "
             "*WEB_TLS_KEY*, for those who look for its cause: the key is in it. Without a key it "
             "is the system's to decide. After a reload that turns TLS off there is none until the "
             "service is started anew."},
    {.name = "HOST_ADDRESS.",
     .part = "host",
     .kind = KeyKind::ADDRESSES,
     .value = "_ADDRESS_[, _ADDRESS_...]",
     .text = "The address of a host, asked before the system's resolver; or all of them, as "
             "192.0.2.7, 2001:db8::7. The host is called by the first that can be connected to, "
             "and calls from each of them are calls of that host. A second line for the same host "
             "replaces the first."},
    {.name = "HOST_PORT.",
     .part = "host",
     .kind = KeyKind::NUMBER,
     .low = 1,
     .high = 65535,
     .value = "_PORT_",
     .text = "The port at which the discovery service of that host is called, where it is another "
             "than that of *ORB_PORT.*: of a master of another fleet, or one behind a tunnel. "
             "Where a host listens is said by *ORB_PORT.* alone."},
    {.name = "TLS",
     .kind = KeyKind::CHOICE,
     .word = "off",
     .choices = "off both only",
     .value = "off | both | only",
     .text = "Whether connections are encrypted and both their sides proven by certificates. "
             "*only* accepts nothing else and calls nobody else; *both* speaks TLS with whoever "
             "does, and plainly with the others, for the days in which a fleet is changed."},
    {.name = "TLS_CERTIFICATE",
     .kind = KeyKind::PATH,
     .value = "_PATH_",
     .text = "The certificate of this host in PEM format, those of intermediate authorities behind "
             "it. Its alternative names are the names that others call the host by."},
    {.name = "TLS_KEY",
     .kind = KeyKind::PATH,
     .value = "_PATH_",
     .text = "Its key in PEM format, without a password; not for everybody to read."},
    {.name = "TLS_CA",
     .kind = KeyKind::PATH,
     .value = "_PATH_",
     .text = "The certificates of the authorities whose hosts are of the fleet. This file, the key "
             "and the certificate are refused where others than root, the user of the service and "
             "who runs the program may write to them or to their folders."},
    {.name = "ALLOW_READ",
     .kind = KeyKind::PEERS,
     .use = KeyUse::AS_LIST,
     .word = "any",
     .value = "_LIST_",
     .text = "Who may read what is known. An entry is any, none, local (this host), master (the "
             "host of *SERVER*), an address, a network as 10.0.0.0/8, or a name of a certificate, "
             "in which \\* stands for any text. Entries are separated by commas, or stand in "
             "several lines. The master may always read what a client produces on demand. A "
             "mistake in one of the four lists keeps the service from starting."},
    {.name = "ALLOW_WRITE",
     .kind = KeyKind::PEERS,
     .use = KeyUse::AS_LIST,
     .word = "any",
     .value = "_LIST_",
     .text = "Who may store discoveries and announce explorers."},
    {.name = "ALLOW_CONTROL",
     .kind = KeyKind::PEERS,
     .use = KeyUse::AS_LIST,
     .word = "local, master",
     .value = "_LIST_",
     .text = "Who may stop the service or move its passes. The master may always move the passes "
             "of a client."},
    {.name = "ALLOW_WRITE_AS",
     .kind = KeyKind::PEERS,
     .use = KeyUse::AS_LIST,
     .word = "none",
     .value = "_LIST_",
     .text = "Who may write in the name of other hosts. Once this key or *ALLOW_WRITE* is there, "
             "the host that others name as the source of what they write must be their own: a name "
             "of their certificate or, without TLS, one that has their address."},
    {.name = "COLLECTION_PAGE_SIZE",
     .kind = KeyKind::NUMBER,
     .low = 1,
     .high = MOST_OF_32_BITS,
     .value = "_BYTES_",
     .text = "How much of a payload is asked for in one call, when payloads are read from another "
             "host. When it is absent the other side decides, which makes for very small pieces; "
             "*tqdiscoctl* asks for 65536."},
    {.name = "COLLECTION_WRITE_SIZE",
     .kind = KeyKind::NUMBER,
     .low = 1,
     .high = 1L << 20,
     .number = 1024,
     .value = "_BYTES_",
     .text = "How much of a payload is sent in one call, when payloads are written to the master. "
             "Each call costs a round trip; *tqdiscoctl* sends 65536."},
    {.name = "DISCOVERY_PAGE_SIZE",
     .kind = KeyKind::NUMBER,
     .low = 1,
     .high = MOST_OF_32_BITS,
     .value = "_RECORDS_",
     .text = "How many records of a list are asked for in one call, when lists are read from "
             "another host. When it is absent nothing is asked for, and the other side sends nine; "
             "*tqdiscoctl* asks for 500. The other side may send more or fewer."},
    {.name = "METADATA_CACHE",
     .kind = KeyKind::NUMBER,
     .holds = KeyHolds::FROM_START,
     .low = 0,
     .high = 1L << 40,
     .number = 64L << 20,
     .value = "_BYTES_",
     .text = "The memory for what metadata documents say, so that none is parsed twice; the "
             "default takes some 110,000 records. With 0 nothing is kept."},
    {.name = "EXPLORER_BUDGET_SECONDS",
     .kind = KeyKind::NUMBER,
     .low = 1,
     .high = 86400,
     .number = 60,
     .value = "_SECONDS_",
     .text = "How long one run of an explorer may take. One that takes longer is late: the log "
             "names it, *tqdiscoctl explorer list* and *status* show it, the others go on without "
             "it, it is not run beside itself, and a stop of the service does not wait for it. One "
             "that is asked for its collection may take no more than the 30 seconds that who asks "
             "waits. Keep it below *TimeoutStopSec* of the unit."},
    {.name = "READ_LIMIT_SECONDS",
     .kind = KeyKind::NUMBER,
     .low = 1,
     .high = MOST_OF_32_BITS,
     .number = 3600,
     .value = "_SECONDS_",
     .text = "How long one answer of another host, a list or a payload, may take in all. What has "
             "not come by then is given up. An answer that takes more than a minute must besides "
             "come at no less than a page every two seconds on average."},
    {.name = "LIMIT_CONNECTIONS",
     .kind = KeyKind::NUMBER,
     .low = 0,
     .high = 1'000'000,
     .number = 0,
     .value = "_NUMBER_",
     .text = "Connections in all; further ones are not taken in. With 0, as many as the limit of "
             "open files allows."},
    {.name = "LIMIT_PEER_CONNECTIONS",
     .kind = KeyKind::NUMBER,
     .low = 0,
     .high = 1'000'000,
     .number = 4096,
     .value = "_NUMBER_",
     .text =
         "Connections of one peer, which besides has no more than half of all that there may be."},
    {.name = "LIMIT_PEER_CALLS",
     .kind = KeyKind::NUMBER,
     .low = 1,
     .high = 500,
     .number = 400,
     .value = "_NUMBER_",
     .text = "Calls of one peer that are in progress; further ones wait."},
    {.name = "LIMIT_PEER_REQUESTS",
     .kind = KeyKind::NUMBER,
     .low = 0,
     .high = 1'000'000,
     .number = 0,
     .value = "_NUMBER_",
     .text = "Requests of one peer a second, of which a second's worth may come at once. One that "
             "comes too early waits for its turn."},
    {.name = "LIMIT_REQUEST_WAIT",
     .kind = KeyKind::NUMBER,
     .low = 0,
     .high = 20'000,
     .number = 2000,
     .value = "_MILLISECONDS_",
     .text = "How long such a request waits at most; one whose turn comes later is refused after "
             "that time; with 0, at once."},
    {.name = "LIMIT_ITERATORS",
     .kind = KeyKind::NUMBER,
     .low = 0,
     .high = 1'000'000,
     .number = 1024,
     .value = "_NUMBER_",
     .text = "Lists and payloads that readers have open; one more makes the one idle longest go, "
             "of the peer that has most."},
    {.name = "LIMIT_PEER_ITERATORS",
     .kind = KeyKind::NUMBER,
     .low = 0,
     .high = 1'000'000,
     .number = 0,
     .value = "_NUMBER_",
     .text = "Those of one peer, which is refused one more."},
    {.name = "LIMIT_WRITERS",
     .kind = KeyKind::NUMBER,
     .low = 0,
     .high = 100'000,
     .number = 256,
     .value = "_NUMBER_",
     .text = "Discoveries that peers are storing at a time; one more is refused."},
    {.name = "LIMIT_PEER_WRITERS",
     .kind = KeyKind::NUMBER,
     .low = 0,
     .high = 100'000,
     .number = 32,
     .value = "_NUMBER_",
     .text = "Those of one peer."},
    {.name = "LIMIT_REGISTRATIONS",
     .kind = KeyKind::NUMBER,
     .low = 1,
     .high = 50'000,
     .number = 50'000,
     .value = "_NUMBER_",
     .text = "Explorers that other hosts announced; one more is dropped. A list of more would be "
             "longer than readers take."},
    {.name = "LIMIT_PEER_REGISTRATIONS",
     .kind = KeyKind::NUMBER,
     .low = 0,
     .high = 50'000,
     .number = 0,
     .value = "_NUMBER_",
     .text = "Those of one peer since the start of the service."},
    {.name = "LIMIT_PEER_DAY_BYTES",
     .kind = KeyKind::NUMBER,
     .low = 0,
     .high = 1L << 50,
     .number = 0,
     .value = "_BYTES_",
     .text = "Bytes that one peer stores within 24 hours, which begin with the first: of each "
             "discovery that it begins to store its payload, its names and 8192 for its two "
             "files. What goes beyond is refused."},
    {.name = "LIMIT_PAYLOAD",
     .kind = KeyKind::NUMBER,
     .low = 0,
     .high = 1L << 40,
     .number = 256L << 20,
     .value = "_BYTES_",
     .text = "Size of one payload that a peer stores. Readers take no more than the default."},
    {.name = "LIMIT_ANSWERS",
     .kind = KeyKind::NUMBER,
     .low = 1L << 20,
     .high = 1L << 40,
     .number = 512L << 20,
     .value = "_BYTES_",
     .text = "On a host that is not the master, the memory for lists of the master's that readers "
             "have asked for and not fetched. Beyond it the list of the reader idle longest goes."},
    {.name = "WEB_LISTEN",
     .kind = KeyKind::LISTEN,
     .holds = KeyHolds::FROM_START,
     .word = "127.0.0.1:27580",
     .value = "_ADDRESS_:_PORT_ | _PATH_",
     .text = "Where *tqdiscoweb* listens: an address with a port, an IPv6 address in brackets, or "
             "the path of a socket, which it makes for its own user and group. One that others "
             "than this host can reach is refused without *WEB_TOKEN_FILE* or *WEB_TLS_CA*."},
    {.name = "WEB_MASTERS",
     .kind = KeyKind::HOST,
     .use = KeyUse::AS_LIST,
     .holds = KeyHolds::FROM_START,
     .value = "_HOST_",
     .text = "A master that *tqdiscoweb* reads from, eight at most; *SERVER* when it is absent. "
             "One with a port of its own has it in *HOST_PORT.*"},
    {.name = "WEB_MASTER_SHARE",
     .kind = KeyKind::NUMBER,
     .holds = KeyHolds::FROM_START,
     .low = 1,
     .high = 50,
     .number = 1,
     .value = "_PERCENT_",
     .text = "How much of the time of a master *tqdiscoweb* takes for its list: the longer a list "
             "takes, the longer it waits before the next."},
    {.name = "WEB_LIST_INTERVAL",
     .kind = KeyKind::SPAN,
     .holds = KeyHolds::FROM_START,
     .number = 5,
     .value = "_SPAN_",
     .text = "How often *tqdiscoweb* lists what a master has, where *WEB_MASTER_SHARE* allows it."},
    {.name = "WEB_LOG_FILE",
     .kind = KeyKind::LOG_FILE,
     .holds = KeyHolds::FROM_START,
     .word = "stderr",
     .value = "_PATH_ | stderr | syslog",
     .text = "The log of *tqdiscoweb*, as *LOG_FILE* for the service; a file of its own, as each "
             "program turns its file over. *LOG_LEVEL* and *LOG_EXCEPT* hold for both."},
    {.name = "WEB_TOKEN_FILE",
     .kind = KeyKind::PATH,
     .holds = KeyHolds::FROM_START,
     .value = "_PATH_",
     .text = "A file whose first line, of 16 characters at least, clients of *tqdiscoweb* have to "
             "show; not for everybody to read. Without TLS it can be listened to on its way."},
    {.name = "WEB_TLS_CERTIFICATE",
     .kind = KeyKind::PATH,
     .holds = KeyHolds::FROM_START,
     .value = "_PATH_",
     .text = "The certificate of *tqdiscoweb* in PEM format, which then speaks nothing but TLS."},
    {.name = "WEB_TLS_KEY",
     .kind = KeyKind::PATH,
     .holds = KeyHolds::FROM_START,
     .value = "_PATH_",
     .text = "Its key in PEM format, without a password; not for everybody to read."},
    {.name = "WEB_TLS_CA",
     .kind = KeyKind::PATH,
     .holds = KeyHolds::FROM_START,
     .value = "_PATH_",
     .text = "The certificates of the authorities of clients: from then on each client needs a "
             "certificate of one of them. What others may write to is refused, as for *TLS_CA*."},
    {.name = "WEB_LIMIT_CONNECTIONS",
     .kind = KeyKind::NUMBER,
     .holds = KeyHolds::FROM_START,
     .low = 8,
     .high = 100'000,
     .number = 1024,
     .value = "_NUMBER_",
     .text = "Connections of *tqdiscoweb* in all; further ones wait to be taken in. When three "
             "quarters are there, those go first that have waited longest with no request."},
    {.name = "WEB_LIMIT_PEER_CONNECTIONS",
     .kind = KeyKind::NUMBER,
     .holds = KeyHolds::FROM_START,
     .low = 1,
     .high = 100'000,
     .number = 256,
     .value = "_NUMBER_",
     .text = "Those of one address; further ones are closed at once."},
    {.name = "WEB_LIMIT_HEADER",
     .kind = KeyKind::NUMBER,
     .holds = KeyHolds::FROM_START,
     .low = 4096,
     .high = 1L << 20,
     .number = 16384,
     .value = "_BYTES_",
     .text = "The memory for a request with its header. No request may have a body."},
    {.name = "WEB_LIMIT_REQUEST",
     .kind = KeyKind::NUMBER,
     .holds = KeyHolds::FROM_START,
     .low = 1,
     .high = 3600,
     .number = 60,
     .value = "_SECONDS_",
     .text = "How long a request may take until the end of its answer, of which its header may "
             "take 10; a stream of events has no end."},
    {.name = "WEB_LIMIT_READS",
     .kind = KeyKind::NUMBER,
     .holds = KeyHolds::FROM_START,
     .low = 1,
     .high = 10,
     .number = 4,
     .value = "_NUMBER_",
     .text = "Payloads that are fetched from a master at a time, and answers from all of several "
             "masters that are made at a time; some more requests wait."},
    {.name = "WEB_LIMIT_PAYLOAD",
     .kind = KeyKind::NUMBER,
     .holds = KeyHolds::FROM_START,
     .low = 1L << 16,
     .high = 256L << 20,
     .number = 16L << 20,
     .value = "_BYTES_",
     .text = "The size of a payload that is fetched, and of an answer made of it."},
    {.name = "WEB_LIMIT_KEPT",
     .kind = KeyKind::NUMBER,
     .holds = KeyHolds::FROM_START,
     .low = 0,
     .high = 1L << 40,
     .number = 16L << 20,
     .value = "_BYTES_",
     .text = "The memory for answers that may be asked for again."},
    {.name = "WEB_LIMIT_SENT",
     .kind = KeyKind::NUMBER,
     .holds = KeyHolds::FROM_START,
     .low = 1L << 20,
     .high = 1L << 40,
     .number = 64L << 20,
     .value = "_BYTES_",
     .text = "The memory for answers on their way, of which those of one address have half; one "
             "that several are sent counts once. Whose answer would be too much is told to come "
             "again."},
    {.name = "WEB_LIMIT_EVENTS",
     .kind = KeyKind::NUMBER,
     .holds = KeyHolds::FROM_START,
     .low = 0,
     .high = 10'000,
     .number = 128,
     .value = "_NUMBER_",
     .text = "Streams of events at a time."},
    {.name = "PUBLISH_MASTERS",
     .kind = KeyKind::HOST,
     .use = KeyUse::AS_LIST,
     .holds = KeyHolds::FROM_START,
     .value = "_HOST_",
     .text = "A master that *tqpublish* follows, 64 at most; *SERVER* when it is absent. One with "
             "a port of its own has it in *HOST_PORT.* One that is no longer named keeps its rows, "
             "as of a master that is away."},
    {.name = "PUBLISH_INTERVAL",
     .kind = KeyKind::SPAN,
     .holds = KeyHolds::FROM_START,
     .number = 300,
     .value = "_SPAN_",
     .text = "How long *tqpublish* waits between two passes over its masters."},
    {.name = "PUBLISH_LOG_FILE",
     .kind = KeyKind::LOG_FILE,
     .holds = KeyHolds::FROM_START,
     .word = "stderr",
     .value = "_PATH_ | stderr | syslog",
     .text = "The log of *tqpublish*, a file of its own as *WEB_LOG_FILE*."},
    {.name = "PUBLISH_LIMIT_PAYLOAD",
     .kind = KeyKind::NUMBER,
     .holds = KeyHolds::FROM_START,
     .low = 1L << 16,
     .high = 256L << 20,
     .number = 16L << 20,
     .value = "_BYTES_",
     .text = "The size of a payload that *tqpublish* takes; it needs some three times as much "
             "memory. Of a larger one it keeps that it is there."},
    {.name = "HISTORY_DAYS",
     .kind = KeyKind::NUMBER,
     .holds = KeyHolds::FROM_START,
     .low = 1,
     .high = 36500,
     .number = 30,
     .value = "_NUMBER_",
     .text = "How long *tqpublish* keeps what has been: history, and what is gone."},
    {.name = "HISTORY_EXCEPT",
     .kind = KeyKind::NAMES,
     .holds = KeyHolds::FROM_START,
     .word = "service",
     .value = "_NAME_[, _NAME_...]",
     .text = "Authorities of whose changes *tqpublish* keeps no history; \\* stands for any text. "
             "That they came and went is kept. A service tells of itself each minute, and no two "
             "reports are the same."},
};

// The key of that name, in a program that does not compile when there is none.
consteval ConfigurationKey const& configKey(std::string_view name)
{
  for (ConfigurationKey const& key : CONFIGURATION_KEYS)
    if (name == key.name)
      return key;
  throw "there is no such key";
}

} // namespace Quillon::Tessarine::Ozf

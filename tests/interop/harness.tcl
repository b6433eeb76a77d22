# What every script here stands on: services of its own on loopback, calls
# with a deadline, and checks that print "ok" or "not ok". A script is
#
#   source [file join [file dirname [info script]] harness.tcl]
#   main { ... }
#
# and exits with 0 only when every check held and nothing was raised. The
# environment variable TQ_BIN_DIR names the folder of tqdisco.

if {[catch {package require combat} problem]} {
  puts stderr "Combat, the other ORB, is not installed (Debian: tcl-combat): $problem"
  exit 1
}
source [file join [file dirname [info script]] types.tcl]

set NIL 0

# Milliseconds. A script that runs too long ends itself, with the logs shown,
# before the test driver ends it without.
set CALL_DEADLINE 30000
set WAIT_DEADLINE 60000
set SCRIPT_DEADLINE 110000

namespace eval harness {
  variable failures 0
  variable checks 0
  variable services {} ;# name -> {root, port, address, channel, pid}
}

# ---- checks ----

proc report {holds what {detail ""}} {
  incr harness::checks
  if {$holds} {
    puts "ok - $what"
  } else {
    incr harness::failures
    puts "not ok - $what[expr {$detail eq "" ? "" : ": $detail"}]"
  }
}

proc same {what got expected} {
  report [string equal $got $expected] $what "got \"$got\", expected \"$expected\""
}

proc holds {what condition} {
  report [uplevel 1 [list expr $condition]] $what $condition
}

# The script must end in the named system exception.
proc raises {what exception script} {
  set code [catch {uplevel 1 $script} result]
  set got [expr {$code == 1 ? [lindex $result 0] : "no exception, result \"$result\""}]
  same $what $got IDL:omg.org/CORBA/$exception:1.0
}

# Runs the script as the test: what it raises is a failure like any other.
proc main {script} {
  types::add
  after $::SCRIPT_DEADLINE {
    puts "not ok - the script has run too long"
    incr harness::failures
    harness::finish
  }
  if {[catch {uplevel #0 $script} problem options]} {
    report 0 "the script ran to its end" $problem
    puts [dict get $options -errorinfo]
  }
  harness::finish
}

proc harness::finish {} {
  variable failures
  variable checks
  variable services
  if {$checks == 0} { report 0 "something was checked" }
  foreach name [dict keys $services] {
    if {$failures > 0} {
      puts "--- log of $name"
      puts [logOf $name]
    }
    discard $name
  }
  puts "$checks checks, $failures failed"
  exit [expr {$failures > 0}]
}

# ---- waiting ----

# Lets events in while it waits, as calls in progress need them.
proc pause {milliseconds} {
  set harness::paused 0
  after $milliseconds {set harness::paused 1}
  vwait harness::paused
}

# Whether the condition, an expression, came true before the deadline.
proc eventually {condition} {
  set end [expr {[clock milliseconds] + $::WAIT_DEADLINE}]
  while {![uplevel 1 [list expr $condition]]} {
    if {[clock milliseconds] > $end} { return 0 }
    pause 20
  }
  return 1
}

# ---- services ----

# A port that is free on each of the addresses. It lies below the ports that
# the kernel gives to connections, and until this process ends the same port of
# an address that no service uses marks it as taken among the tests beside it.
proc freePort {args} {
  while 1 {
    set port [expr {12000 + int(rand() * 20000)}]
    if {[catch {socket -server refuse -myaddr 127.255.255.254 $port} mark]} continue
    set listeners {}
    set taken [catch {
      foreach address $args { lappend listeners [socket -server refuse -myaddr $address $port] }
    }]
    foreach listener $listeners { close $listener }
    if {!$taken} { return $port }
    close $mark
  }
}

# Starts tqdisco under a name and waits until it serves. Options:
#   -master <name>     value of SERVER, the service's own name when not given
#   -address <address> where it listens, 127.0.0.1 when not given
#   -port <port>       a free one when not given
#   -hosts <dict>      addresses of other host names, none when not given
#   -lines <text>      further lines of its configuration
#   -install <dict>    libraries: where below its root, and the file to copy
# Returns a reference to its discovery service.
proc startService {name args} {
  set options [dict merge [dict create -master $name -address 127.0.0.1 -port 0 -hosts {} \
    -lines "" -install {}] $args]
  set address [dict get $options -address]
  set port [dict get $options -port]
  if {$port == 0} { set port [freePort $address] }
  set root [harness::makeRoot]

  set text "SERVER = [dict get $options -master]\nCLIENT_NAME = $name\n"
  append text "ORB_BIND = $address\nORB_PORT.DiscoveryService = $port\n"
  append text "LOG_LEVEL = 4\nLOG_FILE = $root/log/tqdisco.log\n"
  dict for {host where} [dict merge [dict get $options -hosts] [dict create $name $address]] {
    append text "HOST_ADDRESS.$host = $where\n"
  }
  writeFile $root/etc/tq.conf "$text[dict get $options -lines]\n"
  dict for {place library} [dict get $options -install] {
    file copy $library $root/$place
    # Nobody else may write there, whatever the umask.
    foreach path [list $root/$place [file dirname $root/$place]] {
      file attributes $path -permissions 0755
    }
  }

  # The service ends with this process at the latest, however that ends.
  set program [file join $::env(TQ_BIN_DIR) tqdisco]
  set ::env(TESSARINE_ROOT) $root
  set channel [open [list | setpriv --pdeathsig KILL $program 2> $root/log/stderr] r]
  fconfigure $channel -blocking 0
  dict set harness::services $name \
    [dict create root $root port $port address $address channel $channel pid [pid $channel]]

  set service [connect $name]
  if {![eventually {[harness::ended $name] || ![catch {call $service _is_a $::SERVICE_ID}]}]} {
    error "$name does not serve"
  }
  if {[harness::ended $name]} { error "$name ended: [readFile $root/log/stderr]" }
  return $service
}

# A reference to the service of that name; version is that of IIOP.
proc connect {name {version 1.2}} {
  set where [dict get $harness::services $name]
  return [corba::string_to_object \
    corbaloc:iiop:$version@[dict get $where address]:[dict get $where port]/DiscoveryService]
}

proc rootOf {name} { return [dict get $harness::services $name root] }
proc portOf {name} { return [dict get $harness::services $name port] }
proc databaseOf {name} { return [rootOf $name]/db/discovery }
proc logOf {name} { return [readFile [rootOf $name]/log/tqdisco.log] }
proc logged {name text} { return [expr {[string first $text [logOf $name]] >= 0}] }

# Waits for the end of a service that was told to end and returns its exit
# status; a signal's name when it was killed by one.
proc awaitEnd {name} {
  if {![eventually {[harness::ended $name]}]} { return "still running" }
  set channel [dict get $harness::services $name channel]
  dict set harness::services $name channel ""
  fconfigure $channel -blocking 1
  set status 0
  try {
    close $channel
  } trap CHILDSTATUS {message options} {
    set status [lindex [dict get $options -errorcode] 2]
  } trap CHILDKILLED {message options} {
    set status [lindex [dict get $options -errorcode] 2]
  }
  return $status
}

proc harness::makeRoot {} {
  set root [exec mktemp --tmpdir -d tqinterop-XXXXXX]
  file mkdir $root/etc $root/lib/plugins $root/log
  return $root
}

# Its output's end is the process's end: nothing else holds that pipe.
proc harness::ended {name} {
  variable services
  set channel [dict get $services $name channel]
  if {$channel eq ""} { return 1 }
  read $channel
  return [eof $channel]
}

proc harness::discard {name} {
  variable services
  if {[dict get $services $name channel] ne ""} {
    catch {exec kill -KILL [dict get $services $name pid]}
    awaitEnd $name
  }
  file delete -force [rootOf $name]
  dict unset services $name
}

proc readFile {path} {
  if {![file exists $path]} { return "" }
  set file [open $path rb]
  set content [read $file]
  close $file
  return $content
}

proc writeFile {path content} {
  set file [open $path wb]
  puts -nonewline $file $content
  close $file
}

# ---- calls ----

set SERVICE_ID $types::REMOTE/DiscoveryService:1.0

# A call with a deadline; out parameters are names of the caller's variables.
proc call {reference args} {
  uplevel 1 [list $reference -timeout $::CALL_DEADLINE {*}$args]
}

# Combat passes that time on with the operations of an interface alone. What every
# object is asked (_is_a, _non_existent, _interface), by whoever calls or by Combat
# itself where it does not know an object's type, would wait without end for an answer
# that is lost. So these get the same time.
itcl::body Combat::CORBA::ORB::invoke_sync {
  response object operation rtype plevel params values {exceptions {}} {timeout 0}
} "if {!\$timeout} {set timeout \$::CALL_DEADLINE}
[namespace eval Combat::CORBA::ORB {info function invoke_sync -body}]"

# A record with usable values; args name members that differ, those of the
# attributes included.
proc record {subject authority args} {
  set attributes [dict create colType CT_POINT_IN_TIME colStorage CS_CENTRALREPOSITORY \
    priority 1 timeToLive 3600 discoveryTime [clock seconds]]
  set record [dict create queryType DQ_DISCOVERY_DATA subject $subject authority $authority \
    authType AT_TQUCLIENT attributes {} sourceHost "" sourceServiceName ""]
  foreach {member value} $args {
    if {[dict exists $attributes $member]} {
      dict set attributes $member $value
    } elseif {[dict exists $record $member]} {
      dict set record $member $value
    } else {
      error "a record has no member $member"
    }
  }
  dict set record attributes $attributes
  return $record
}

proc statusOf {result} { return [dict get $result discStatus] }

# Stores a discovery in pieces; returns the status of the first step that
# failed, DS_SUCCESS otherwise.
proc store {service record args} {
  set result [call $service putCollection $record writer]
  if {[statusOf $result] ne "DS_SUCCESS"} { return [statusOf $result] }
  foreach piece $args {
    if {![call $writer put $piece]} { error "a piece was not written" }
  }
  set result [call $writer close]
  corba::release $writer
  return [statusOf $result]
}

# Every page up to the empty one. A limit guards against pages without end.
proc pagesOf {iterator} {
  set pages {}
  while {[llength $pages] < 5000} {
    set page [call $iterator getNextPage]
    if {[string length $page] == 0} { return $pages }
    lappend pages $page
  }
  error "the pages do not end"
}

proc releaseIterator {iterator} {
  call $iterator release
  corba::release $iterator
}

# All records of a query, in one list.
proc recordsOf {service queryType authType subject authority} {
  set iterator [call $service queryDiscoveries $queryType $authType $subject $authority]
  set records [concat {*}[pagesOf $iterator]]
  releaseIterator $iterator
  return $records
}

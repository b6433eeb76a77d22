# The other side of the contract: a discovery service that is served by Combat,
# to stand where a master or a host with explorers stands. It stores nothing and
# decides nothing: it notes every call and answers what the script has set.
#
#   serve <address> <port>        serves, before any other call of the script
#   recorded ?<pattern>?          the calls noted, those of such operations
#   answer <operation> <value>    what it answers from now on
#
# The answers that can be set:
#   queryDiscoveries   the records, in pages: {{record record} {record}};
#                      "fail" raises an exception, "nil" gives no iterator,
#                      "other" an object of another interface
#   getCollectionData  {status payload}; "nil" gives success without an iterator,
#                      "other" an object of another interface
#   pageBytes          the length of the payload's pages
#   vanish             an interface, whose iterators are gone after a page
#   putCollection      a status; the writer is nil unless it is DS_SUCCESS
#   put                0 or 1
#   close              a status

namespace eval servants {
  variable calls {} ;# {operation argument ... milliseconds}
  variable answers [dict create queryDiscoveries {} getCollectionData {DS_NONE_FOUND ""} \
    putCollection DS_SUCCESS put 1 close DS_SUCCESS pageBytes 700 vanish ""]
}

proc recorded {{pattern *}} {
  return [lmap call [servants::withTimes $pattern] {lrange $call 0 end-1}]
}
proc forget {} { set servants::calls {} }
proc answer {operation value} { dict set servants::answers $operation $value }

proc servants::withTimes {{pattern *}} {
  variable calls
  return [lmap call $calls {
    if {![string match $pattern [lindex $call 0]]} continue
    set call
  }]
}

proc servants::note {args} {
  variable calls
  lappend calls [list {*}$args [clock milliseconds]]
}

# Makes a reference to a servant, which lives until the process ends.
proc servants::activate {servant} {
  return [[corba::resolve_initial_references RootPOA] servant_to_reference $servant]
}

# Combat writes "<POA>*<object>" into its object keys, except for an object that
# has the name of its adapter: a persistent adapter of the implementation's own
# name, with an object of the same name, makes the plain key that the service is
# known by. Combat listens on every address; here only on the one it is given.
# Text is UTF-8 that the ORBs pass on as bytes: both call it Latin-1, so that
# they agree to convert nothing, whatever this machine's locale is.
proc serve {address port} {
  rename ::socket servants::plainSocket
  proc ::socket {args} {
    set options [expr {[lindex $args 0] eq "-server" ? [list -myaddr $servants::address] : {}}]
    return [servants::plainSocket {*}$options {*}$args]
  }
  set servants::address $address
  corba::init -ORBPOAImplName DiscoveryService -ORBServerPort $port -ORBHostName $address \
    -ORBNativeCodeSet iso8859-1
  set root [corba::resolve_initial_references RootPOA]
  rename ::socket {}
  rename servants::plainSocket ::socket

  set manager [$root the_POAManager]
  set adapter [$root create_POA DiscoveryService $manager {PERSISTENT USER_ID}]
  $adapter activate_object_with_id DiscoveryService [servants::Service #auto]
  $manager activate
}

# One page a call; the page size is noted, as it decides nothing here.
itcl::class servants::Pages {
  inherit PortableServer::ServantBase
  public variable pageSize 8 { servants::note ${kind}.pageSize $pageSize }
  private variable kind
  private variable pages
  constructor {aKind somePages} {
    set kind $aKind
    set pages $somePages
  }
  public method _Interface {} { return $types::REMOTE/$kind:1.0 }
  public method getNextPage {} {
    servants::note $kind.getNextPage
    set page [lindex $pages 0]
    set pages [lrange $pages 1 end]
    if {[dict get $servants::answers vanish] eq $kind} {
      set adapter [corba::resolve_initial_references RootPOA]
      $adapter deactivate_object [$adapter servant_to_id $this]
    }
    return $page
  }
  public method release {} { servants::note $kind.release }
}

itcl::class servants::Writer {
  inherit PortableServer::ServantBase
  public method _Interface {} { return $types::REMOTE/RemoteWriter:1.0 }
  public method put {data} {
    servants::note RemoteWriter.put $data
    return [dict get $servants::answers put]
  }
  public method close {} {
    servants::note RemoteWriter.close
    return [dict create discStatus [dict get $servants::answers close] retryInterval 0]
  }
}

itcl::class servants::Service {
  inherit PortableServer::ServantBase
  public method _Interface {} { return $types::REMOTE/DiscoveryService:1.0 }

  public method queryDiscoveries {queryType authType subject authority} {
    servants::note queryDiscoveries $queryType $authType $subject $authority
    set pages [dict get $servants::answers queryDiscoveries]
    if {$pages eq "fail"} { error "told to fail" }
    if {$pages eq "nil"} { return 0 }
    if {$pages eq "other"} { return [servants::activate [servants::newWriter]] }
    return [servants::activate [servants::newPages DiscoveryIterator $pages]]
  }

  public method getCollectionData {record filter iteratorName} {
    upvar 1 $iteratorName iterator
    servants::note getCollectionData $record $filter
    set iterator 0
    set answer [dict get $servants::answers getCollectionData]
    if {$answer eq "nil"} { return DS_SUCCESS }
    if {$answer eq "other"} {
      set iterator [servants::activate [servants::newWriter]]
      return DS_SUCCESS
    }
    lassign $answer status payload
    if {$status eq "DS_SUCCESS"} {
      set pages {}
      set length [dict get $servants::answers pageBytes]
      for {set i 0} {$i < [string length $payload]} {incr i $length} {
        lappend pages [string range $payload $i [expr {$i + $length - 1}]]
      }
      set iterator [servants::activate [servants::newPages CollectionDataIterator $pages]]
    }
    return $status
  }

  public method putCollection {record writerName} {
    upvar 1 $writerName writer
    servants::note putCollection $record
    set status [dict get $servants::answers putCollection]
    set writer [expr {$status eq "DS_SUCCESS" ? [servants::activate [servants::newWriter]] : 0}]
    return [dict create discStatus $status retryInterval 0]
  }

  public method registerExplorer {host service subject authority authType priority} {
    servants::note registerExplorer $host $service $subject $authority $authType $priority
  }
  public method terminate {} {
    servants::note terminate
    return 0
  }
  public method restartLocalPushTimer {} { servants::note restartLocalPushTimer }
  public method restartAllPushTimers {} {
    servants::note restartAllPushTimers
    return 0
  }
}

proc servants::newPages {kind pages} {
  return [namespace current]::[servants::Pages #auto $kind $pages]
}
proc servants::newWriter {} { return [namespace current]::[servants::Writer #auto] }

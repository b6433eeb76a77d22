# What programs and plug-ins outside this tree are built against: the public
# headers, the IDL files, a CMake package and a pkg-config module. Both find
# the rest from where they lie themselves, so that a tree installed below
# DESTDIR or another prefix can be used there.
include(CMakePackageConfigHelpers)

set(TQ_HEADER_DIR ${CMAKE_INSTALL_INCLUDEDIR}/tessarine)

# The public headers: what a reader of discoveries or the author of an explorer
# includes, and what those include. Another header becomes public by a line
# here; a test compiles each alone from the installed tree.
set(TQ_PUBLIC_HEADERS
  # readers
  discovery/DefaultExplorerDataParser.h
  discovery/Discoveries.h
  discovery/FilterDescription.h
  discovery/FilterParameters.h
  discovery/ItemFacts.h
  discovery/Researcher.h
  discovery/ResearcherItems.h
  # explorers
  discovery/CachedRegistrations.h
  discovery/DiscData.h
  discovery/DiscoveryFactory.h
  discovery/DiscoveryLog.h
  discovery/DiscoveryRepository.h
  discovery/DiscoveryRepositoryEntries.h
  discovery/Explorer.h
  discovery/ExplorerFacts.h
  discovery/ExplorerPayload.h
  discovery/ExplorerTrial.h
  discovery/Export.h
  discovery/Peers.h
  discovery/Registrations.h
  discovery/TimedExplorer.h
  # the framework, as far as both need it
  ozf/base/AsciiCase.h
  ozf/base/CodePage.h
  ozf/base/Export.h
  ozf/base/MetadataConverter.h
  ozf/base/OzfHostname.h
  ozf/base/OzfObjTime.h
  ozf/base/OzfString.h
  ozf/base/Uri.h
  ozf/base/Wildcard.h
  ozf/config/Configuration.h
  ozf/config/ProductRoot.h
  ozf/log/Assertion.h
  ozf/log/LogFlood.h
  ozf/log/Logger.h
  ozf/orb/Corba.h
  ozf/orb/Evictor.h
  ozf/orb/Orb.h
  ozf/orb/OrbCore.h
  ozf/plugin/EngineContext.h
  ozf/plugin/EngineSingleton.h
  ozf/sync/AutoDereference.h
  ozf/sync/OZFBlockUntil.h
  ozf/sync/OZFRefCounted.h
  ozf/sync/OzfLockable.h
  ozf/xml/DocumentLimits.h
  ozf/xml/JobExecInfo.h
  ozf/xml/OzfQuery.h
  ozf/xml/StatusMsg.h
  ozf/xml/TquPolicy.h
  ozf/xml/XmlDocumentInterface.h
  ozf/xml/XmlInterface.h
  ozf/xml/XmlObjParseContext.h
  ozf/xml/XmlStr.h)
foreach(header IN LISTS TQ_PUBLIC_HEADERS)
  cmake_path(GET header PARENT_PATH folder)
  install(FILES ${header} DESTINATION ${TQ_HEADER_DIR}/${folder} COMPONENT Development)
endforeach()
# Made from the IDL files; the headers above include them.
install(FILES ${PROJECT_BINARY_DIR}/discovery/idl/DiscoveryTypesC.h
              ${PROJECT_BINARY_DIR}/discovery/idl/DiscoveryServiceC.h
        DESTINATION ${TQ_HEADER_DIR} COMPONENT Development)
install(FILES idl/DiscoveryTypes.idl idl/DiscoveryService.idl
        DESTINATION ${CMAKE_INSTALL_DATADIR}/idl/tessarine COMPONENT Development)

# Every document, for operators as well as for developers; with the development
# files alone come the documents that the headers refer to, and what they show.
file(GLOB TQ_DOCUMENTS CONFIGURE_DEPENDS docs/*.md docs/*.png)
install(FILES ${TQ_DOCUMENTS} docs/alerts.yml SECURITY.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES docs/collection-data.md docs/payload.md docs/query-language.md
              docs/reading-facts.md docs/writing-an-explorer.md
        DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT Development)
install(DIRECTORY docs/example-plugin DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT Development)
install(DIRECTORY examples/scripts examples/api DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples
        USE_SOURCE_PERMISSIONS)
install(DIRECTORY examples/read-discoveries examples/full-file-systems
        DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples
        COMPONENT Development)

set(TQ_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/tqdiscovery)
set(TQ_PLUGIN_DIR ${TQ_PRODUCT_ROOT}/lib/plugins)
install(EXPORT tqdiscovery FILE tqdiscovery-targets.cmake NAMESPACE tqdiscovery::
        DESTINATION ${TQ_PACKAGE_DIR} COMPONENT Development)
configure_package_config_file(packaging/tqdiscovery-config.cmake.in
                              ${PROJECT_BINARY_DIR}/tqdiscovery-config.cmake
                              INSTALL_DESTINATION ${TQ_PACKAGE_DIR} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/tqdiscovery-config-version.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tqdiscovery-config.cmake
              ${PROJECT_BINARY_DIR}/tqdiscovery-config-version.cmake
        DESTINATION ${TQ_PACKAGE_DIR} COMPONENT Development)

# From the module's folder back to the prefix; a library or header folder that
# does not lie below the prefix is named as it is.
file(RELATIVE_PATH TQ_PC_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" TQ_PC_PREFIX ${TQ_PC_PREFIX})
set(TQ_PC_PREFIX "\${pcfiledir}/${TQ_PC_PREFIX}")
foreach(kind LIBDIR INCLUDEDIR)
  set(TQ_PC_${kind} "\${prefix}/${CMAKE_INSTALL_${kind}}")
  if(IS_ABSOLUTE ${CMAKE_INSTALL_${kind}})
    set(TQ_PC_${kind} ${CMAKE_INSTALL_${kind}})
    set(TQ_PC_PREFIX ${CMAKE_INSTALL_PREFIX})
  endif()
endforeach()
configure_file(packaging/tqdiscovery.pc.in ${PROJECT_BINARY_DIR}/tqdiscovery.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tqdiscovery.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT Development)

include(cmake/SplitDebug.cmake)
tq_split_debug(ozf ${CMAKE_INSTALL_LIBDIR})
tq_split_debug(tqdiscovery ${CMAKE_INSTALL_LIBDIR})
tq_split_debug(tqexplorer ${TQ_ROOT_DESTINATION}/lib)
tq_split_debug(tqdisco ${CMAKE_INSTALL_BINDIR})
tq_split_debug(tqdiscoctl ${CMAKE_INSTALL_BINDIR})
tq_split_debug(tqdiscoweb ${CMAKE_INSTALL_BINDIR})
tq_split_debug(tqpublish ${CMAKE_INSTALL_BINDIR})

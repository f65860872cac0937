# package.cmake: what a release holds. One archive with the programs and what is read beside them, one with their
# symbols; scripts/package.sh makes both.
set(VORN_TRACE_FORMATS ${CMAKE_BINARY_DIR}/VornTramsaNet.tmf CACHE FILEPATH "make-tmf's output, made by a native build")
set(VORN_RELEASE_PROGRAMS VornTramsaNet VornTramsaNetMDNS migrate service-console)

foreach(program ${VORN_RELEASE_PROGRAMS})
  if(TARGET ${program})
    install(PROGRAMS $<TARGET_FILE:${program}> DESTINATION . COMPONENT programs)
    install(FILES $<TARGET_FILE:${program}>.debug DESTINATION . COMPONENT symbols)
  endif()
endforeach()
install(FILES ${VORN_TRACE_FORMATS} DESTINATION . COMPONENT programs)
install(FILES docs/guide.md DESTINATION . COMPONENT programs)
install(DIRECTORY docs/pictures DESTINATION . COMPONENT programs OPTIONAL)

set(CPACK_GENERATOR ZIP)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_COMPONENTS_ALL programs symbols)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_ARCHIVE_COMPONENT_INSTALL ON)
set(CPACK_ARCHIVE_PROGRAMS_FILE_NAME ${PROJECT_NAME}-${PROJECT_VERSION}-win64)
set(CPACK_ARCHIVE_SYMBOLS_FILE_NAME ${PROJECT_NAME}-${PROJECT_VERSION}-win64-symbols)
# one date in every archive of the same sources
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_SOURCE_DIR}/cmake/package_dates.cmake)
include(CPack)

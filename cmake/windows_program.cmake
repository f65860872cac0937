# What makes a Windows program of this project one that can be released: reproducible code with symbols beside it,
# hardened, with the version resource and the manifest. On other systems the functions do nothing.

# Product code: symbols that name no folder of the machine it was built on, so that two builds of one commit are the
# same.
function(vorn_windows_code target)
  if(WIN32)
    # The canaries' failure routine lies in a library that only this option links.
    target_link_options(${target} PUBLIC -fstack-protector-strong)
    target_compile_options(${target} PRIVATE -g -fstack-protector-strong
      -ffile-prefix-map=${CMAKE_SOURCE_DIR}=. -ffile-prefix-map=${CMAKE_BINARY_DIR}=build)
  endif()
endfunction()

# The manifest, and the agent's version resource unless TOOL is given.
function(vorn_windows_resources target)
  if(WIN32)
    set(rc ${CMAKE_SOURCE_DIR}/platform/windows/VornTramsaNet.rc)
    target_sources(${target} PRIVATE ${rc})
    target_include_directories(${target} PRIVATE ${CMAKE_SOURCE_DIR})
    if("TOOL" IN_LIST ARGN)
      target_compile_definitions(${target} PRIVATE $<$<COMPILE_LANGUAGE:RC>:VORN_TOOL>)
    endif()
    set_property(SOURCE ${rc} TARGET_DIRECTORY ${target} APPEND PROPERTY OBJECT_DEPENDS
      "${CMAKE_SOURCE_DIR}/platform/windows/VornTramsaNet.manifest;${CMAKE_SOURCE_DIR}/platform/version_info.h")
  endif()
endfunction()

# A program that is shipped (TOOL: one that is not the agent). Its symbols go to TARGET.exe.debug beside it.
function(vorn_windows_program target)
  if(WIN32)
    vorn_windows_code(${target})
    vorn_windows_resources(${target} ${ARGN})
    target_link_options(${target} PRIVATE
      -Wl,--dynamicbase,--nxcompat,--high-entropy-va,--no-insert-timestamp
      # Windows 7 and later, as the manifest says
      -Wl,--major-os-version,6,--minor-os-version,1,--major-subsystem-version,6,--minor-subsystem-version,1)
    add_custom_command(TARGET ${target} POST_BUILD
      COMMAND ${CMAKE_OBJCOPY} --only-keep-debug $<TARGET_FILE:${target}> $<TARGET_FILE:${target}>.debug
      COMMAND ${CMAKE_OBJCOPY} --strip-all $<TARGET_FILE:${target}>
      COMMAND ${CMAKE_OBJCOPY} --add-gnu-debuglink=$<TARGET_FILE:${target}>.debug $<TARGET_FILE:${target}>
      VERBATIM)
  endif()
endfunction()

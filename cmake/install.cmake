# cmake --install: component `service` is what a gateway needs, `platform` the programs for people
# and tests, `dev` what programs of other projects are built with.
include(GNUInstallDirs)

set(KT_UNIT_DIR lib/systemd/system CACHE PATH "where systemd units are installed")

set(kt_dev_include_dir ${CMAKE_INSTALL_INCLUDEDIR}/kt-can-proprietary)
set(kt_dev_library_dir ${CMAKE_INSTALL_LIBDIR}/kt-can-proprietary)

# kt_install_library(NAME [REQUIRES pkg-config modules...]): the archive, its headers and NAME.pc.
# Some names are taken elsewhere (rest, parson), so both stand in a folder of their own.
function(kt_install_library name)
    cmake_parse_arguments(arg "" "" "REQUIRES" ${ARGN})
    list(JOIN arg_REQUIRES ", " requires)
    set(module ${name})
    if(NOT name MATCHES "^kt-")
        set(module kt-${name})
    endif()
    configure_file(${PROJECT_SOURCE_DIR}/cmake/library.pc.in ${module}.pc @ONLY)
    install(TARGETS ${name} ARCHIVE DESTINATION ${kt_dev_library_dir} COMPONENT dev)
    install(DIRECTORY include/ DESTINATION ${kt_dev_include_dir} COMPONENT dev)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${module}.pc
            DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
endfunction()

# kt_install_program(COMPONENT NAME): a program with its manual page and completion
function(kt_install_program component name)
    install(TARGETS ${name} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT ${component})
    foreach(section 1 8)
        file(GLOB pages CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/packaging/man/${name}.${section})
        install(FILES ${pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section}
                COMPONENT ${component})
    endforeach()
    file(GLOB completion CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/packaging/completion/${name})
    install(FILES ${completion} DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
            COMPONENT ${component})
endfunction()

# Two builds of one commit give the same bytes, whatever folders the checkout
# and the build tree sit in:
#  - no path of this machine goes into objects: the source tree is written as
#    /qx/src and the build tree as /qx/build (debug information, __FILE__);
#    the build tree's map comes last so that it wins when the build tree lies
#    inside the source tree (build/win);
#  - Windows images carry no link time stamp (the PE header field is 0);
#  - PDBs name objects, archives and the link's folder from /qx/build
#    (lld's pdbsourcepath; object paths are relative to the build tree).
# clang 14 also writes each object's cc1 command line into its CodeView
# (LF_BUILDINFO; clang 16 and later only on request), which names the real
# folders: scripts/release.sh therefore builds from fixed paths.
# Static libraries are written by ar in its deterministic mode (Debian's
# default). The archive's time stamps come from SOURCE_DATE_EPOCH at packaging
# time (packaging/StageFiles.cmake).
set(QX_SOURCE_PREFIX /qx/src)
set(QX_BUILD_PREFIX /qx/build)
add_compile_options(-ffile-prefix-map=${CMAKE_SOURCE_DIR}=${QX_SOURCE_PREFIX}
                    -ffile-prefix-map=${CMAKE_BINARY_DIR}=${QX_BUILD_PREFIX})
if(WIN32)
  add_link_options(-Wl,--no-insert-timestamp -Wl,-Xlink=-pdbsourcepath:${QX_BUILD_PREFIX})
endif()

# Run by CPack behind each package: packs it again with its files in the order of their names. CPack takes them as the
# file system lists them, which depends on the machine.
function(run folder)
  execute_process(COMMAND ${ARGN} WORKING_DIRECTORY "${folder}" COMMAND_ERROR_IS_FATAL ANY)
endfunction()

set(ENV{LC_ALL} C)
set(ENV{TZ} UTC)
foreach(package IN LISTS CPACK_PACKAGE_FILES)
  set(work "${package}.unpacked")
  file(REMOVE_RECURSE "${work}")
  file(MAKE_DIRECTORY "${work}")
  if(package MATCHES "\\.deb$")
    run("${work}" dpkg-deb --raw-extract "${package}" root)
    run("${work}" sort -k 2 -o root/DEBIAN/md5sums root/DEBIAN/md5sums)
    # CPack asks the file system for it, too. In KiB: each file rounded up, and one for each folder.
    run("${work}" sh -c "size=$(find root/usr -type f -printf '%s\\n' -o -type d -printf '1\\n' |
                                awk '{ sum += int(($1 + 1023) / 1024) } END { print sum }') &&
                         sed -i \"s/^Installed-Size:.*/Installed-Size: $size/\" root/DEBIAN/control")
    run("${work}" dpkg-deb --root-owner-group -Zxz --build root "${package}")
  elseif(package MATCHES "\\.zip$")
    run("${work}" unzip -q "${package}")
    file(REMOVE "${package}")
    run("${work}" sh -c "find . -type f | sed 's,^\\./,,' | sort | zip -q -X -D -@ \"$1\"" sh "${package}")
  else()
    run("${work}" tar -xzf "${package}")
    run("${work}" sh -c "tar --sort=name --mtime=@$SOURCE_DATE_EPOCH --owner=0 --group=0 --numeric-owner --format=gnu -c * | gzip -9n >\"$1\"" sh "${package}")
  endif()
  file(REMOVE_RECURSE "${work}")
endforeach()

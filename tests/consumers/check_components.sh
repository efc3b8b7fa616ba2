#!/usr/bin/env bash
# Checks what each install component holds: everything once, nothing in two of them.
#
# usage: check_components.sh RELEASE_BUILD_DIR VERSION
set -euo pipefail

build=$1
version=$2
scratch=$(mktemp -d)
trap 'rm -r "$scratch"' EXIT

# The files of a component, headers as one line.
component() {
    DESTDIR=$scratch/$1 cmake --install "$build" --component "$1" >/dev/null
    (cd "$scratch/$1/opt/kiv" && find . ! -type d | sed -E 's|^\./||; s|[^/]*\.h$|*.h|' | LC_ALL=C sort -u)
}

diff <(component runtime) - <<END
lib/libKivFramework.so.1
lib/libKivFramework.so.$version
END
diff <(component development) - <<END
include/KivFramework/*.h
lib/cmake/KivFramework/KivFrameworkConfig.cmake
lib/cmake/KivFramework/KivFrameworkConfigVersion.cmake
lib/cmake/KivFramework/KivFrameworkTargets-release.cmake
lib/cmake/KivFramework/KivFrameworkTargets.cmake
lib/libKivFramework.so
lib/pkgconfig/kivframework.pc
END
diff <(component agent) - <<END
bin/kiv-agent
bin/kiv-console
share/man/man1/kiv-console.1
share/man/man5/kiv-agent.conf.5
share/man/man8/kiv-agent.8
END

DESTDIR=$scratch/all cmake --install "$build" >/dev/null
list() { (cd "$1" && find . ! -type d | LC_ALL=C sort); }
diff <(list "$scratch/all") <(for one in runtime development agent; do list "$scratch/$one"; done | LC_ALL=C sort)

#!/usr/bin/env bash
# The part of linux.sh that changes the system, in a mount namespace of its own: debian.sh DIST ROOT WORK PORT installs the
# Debian packages in a layer of memory over this machine's root, sends from there, and removes them.
set -euo pipefail
dist=$1 root=$2 work=$3 port=$4

mount -t tmpfs none "$work/layer"
mkdir "$work/layer"/{upper,work,merged}
new=$work/layer/merged
mount -t overlay none -o "lowerdir=/,upperdir=$work/layer/upper,workdir=$work/layer/work" "$new"
mount --rbind /dev "$new/dev"
mount -t proc none "$new/proc"
mkdir -p "$new/packages/host"
cp "$dist"/*.deb "$root/examples/host.c" "$work/letter.txt" "$new/packages"
inside() { chroot "$new" env -i -C /packages PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 "$@"; }
ours() { find "$new"/{etc,opt,usr,var/lib/dpkg/info} -iname '*velmail*' && { inside ldconfig -p | grep -i velmail || true; }; }
if [ -n "$(ours)" ]; then
    echo "VEL mail is installed on this machine; its packages cannot be tried here." >&2
    exit 1
fi

for loaded in libesmtp6 libcurl4; do
    dpkg-deb -f "$dist"/libvelmail64-1_*.deb Depends | grep -qw "$loaded"
done
inside sh -c 'dpkg --install *.deb' >"$work/dpkg" 2>&1 || { cat "$work/dpkg" >&2 && exit 1; }
inside ldconfig -p | grep -q 'libVelMail64\.so\.1 '

inside velmail MailServer=127.0.0.1 "MailServerPort=$port" MailSenderMailBox=me@example.com MailTextFilename=letter.txt \
    MailRecipientsMailBox=you@example.com "MailSubject=From the shell" >/dev/null
inside sh -c 'cc host.c $(pkg-config --cflags --libs velmail) -o one'
inside ./one 127.0.0.1 "$port" letter.txt you@example.com
cat >"$new/packages/host/CMakeLists.txt" <<'END'
cmake_minimum_required(VERSION 3.25)
project(Host LANGUAGES C)
find_package(VelMail 1.3 REQUIRED)
add_executable(host ../host.c)
target_link_libraries(host PRIVATE VelMail::VelMail64)
END
inside sh -c 'cmake -S host -B host/build && cmake --build host/build' >/dev/null
inside host/build/host 127.0.0.1 "$port" letter.txt you@example.com

# What the program offers is in its manual page and its completion.
manual=$(inside man -P cat velmail)
for option in $(inside velmail --help | grep -oE -- '--[a-z]+' | sort -u); do
    grep -q -- "$option" <<<"$manual"
    grep -q -- "$option" "$new/usr/share/bash-completion/completions/velmail"
done
completed=$(inside bash -c '. /usr/share/bash-completion/completions/velmail
    COMP_WORDS=(velmail MailSub) COMP_CWORD=1; _velmail; echo "${COMPREPLY[*]}"')
[ "$completed" = MailSubject= ]

inside dpkg --purge velmail libvelmail64-dev libvelmail64-1 >/dev/null
ours >"$work/left"
diff /dev/null "$work/left"

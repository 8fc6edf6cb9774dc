# shellcheck shell=bash
# Sourced by scripts that run a command in an isolated world.

# Starts the script again with --inside before its arguments, in namespaces that end with it. Inside,
# mounts an empty /run and /var/log. Where namespaces are not permitted, exits with 77: skipped.
enter() {
    local user flags
    if [ "$1" != --inside ]; then
        for user in "" "--user --map-root-user"; do
            read -ra flags <<<"$user --net --mount --pid --fork --kill-child --mount-proc"
            if unshare "${flags[@]}" sh -c 'ip link set lo up && mount -t tmpfs run /run' 2>/dev/null; then
                exec unshare "${flags[@]}" bash "$0" --inside "$@"
            fi
        done
        echo "this system permits no namespaces"
        exit 77
    fi
    mount -t tmpfs run /run
    mount -t tmpfs log /var/log
    mkdir /run/netns
}

await() { # FILE TEXT
    for _ in $(seq 100); do
        ! grep -qs -- "$2" "$1" || return 0
        sleep 0.1
    done
    echo "no $2 in $1 in 10 s"
    exit 1
}

# Two hosts on one network: this one, 10.77.0.1, and that in the namespace "studio", 10.77.0.2.
studio() {
    local host
    ip netns add studio
    ip link add eth0 type veth peer name eth0 netns studio
    ip addr add 10.77.0.1/24 dev eth0
    ip -n studio addr add 10.77.0.2/24 dev eth0
    for host in "" "-n studio"; do
        # shellcheck disable=SC2086
        ip $host link set lo up && ip $host link set eth0 up && ip $host route add 224.0.0.0/4 dev eth0
    done
}

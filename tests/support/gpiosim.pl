#!/usr/bin/perl
# The first process of the kernel of scripts/gpiosim: makes the chips, runs the command, and switches off.
# One process, because starting another takes a tenth of a second there.
use strict;
use warnings;
use POSIX;

# Numbers of system calls and requests on x86-64.
my ($SYS_MOUNT, $SYS_REBOOT, $SIOCSIFFLAGS) = (165, 169, 0x8914);
my $run = $0 =~ s|/init$||r;

sub put {
    my ($name, $text) = @_;
    open(my $file, '>', $name) or die "$name: $!\n";
    defined syswrite($file, $text) or die "$name: $!\n";
}

sub get {
    open(my $file, '<', $_[0]) or die "$_[0]: $!\n";
    local $/;
    return <$file> =~ s/\n\z//r;
}

my $none = 'none';
for (qw(proc:/proc sysfs:/sys devtmpfs:/dev tmpfs:/dev/shm devpts:/dev/pts tmpfs:/run configfs:/sys/kernel/config)) {
    my ($type, $at) = split /:/;
    mkdir $at;
    syscall($SYS_MOUNT, $none, $at, $type, 0, 0) == 0 or die "$at: $!\n";
}
symlink '/proc/self/fd', '/dev/fd';
socket(my $socket, 2, 2, 0);
ioctl($socket, $SIOCSIFFLAGS, my $up = pack('a16 s x22', 'lo', 1)) or die "lo: $!\n";

mkdir '/run/gpio';
for (['sim0', 16], ['sim1', 8]) {
    my ($chip, $lines) = @$_;
    my $dir = "/sys/kernel/config/gpio-sim/$chip";
    mkdir $_ for $dir, "$dir/bank";
    put("$dir/bank/num_lines", $lines);
    put("$dir/bank/label", $chip);
    for (0 .. $lines - 1) {
        mkdir "$dir/bank/line$_";
        put("$dir/bank/line$_/name", "$chip-$_");
    }
    put("$dir/live", 1);
    symlink join('/', '/sys/devices/platform', get("$dir/dev_name"), get("$dir/bank/chip_name")), "/run/gpio/$chip";
}

# The kernel's terminals are the output, without carriage returns.
my @out = map {
    my $tty = POSIX::open("/dev/tty$_", O_WRONLY);
    my $mode = POSIX::Termios->new;
    $mode->getattr($tty);
    $mode->setoflag(0);
    $mode->setattr($tty);
    $tty
} 0, 1;
my $child = fork || do {
    %ENV = map { split /=/, $_, 2 } split /\0/, get("$run/environment");
    chdir $ENV{PWD};
    POSIX::dup2(POSIX::open('/dev/null'), 0);
    POSIX::dup2($out[$_], $_ + 1) for 0, 1;
    my (@command) = get("$run/command") =~ /([^\0]*)\0/g;
    exec { $command[0] } @command or warn "$command[0]: $!\n";
    POSIX::_exit(127);
};
1 while wait != $child;
put("$run/status", $? & 127 ? 128 + ($? & 127) : $? >> 8);
POSIX::tcdrain($_) for @out;
syscall($SYS_REBOOT, 0xfee1dead, 672274793, 0x4321fedc, 0);

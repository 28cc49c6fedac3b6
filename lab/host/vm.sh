# shellcheck shell=bash disable=SC2154
# Boots the guest and waits for its end. Sourced by lab/run and lab/bench, which set: lab (this folder), cache (build/lab),
# out (a folder that the guest may write to, with the job in it) and vm_deadline (seconds).

vm_pid=

vm_end() {
  [ -z "$vm_pid" ] || { kill "$vm_pid" && wait "$vm_pid"; } 2>/dev/null || true
}

# For a prompt: the guest's terminal is the user's, with Ctrl-C. Ctrl-] x ends the machine.
# shellcheck disable=SC2034 # used by lab/run
vm_console=(-chardev "stdio,id=terminal,mux=on,signal=off" -serial chardev:terminal -mon chardev=terminal -echr 29)

# vm_boot [CONSOLE...]: prints what the guest prints. Status 0 if the guest ended by itself in time. Standard input is the guest's.
vm_boot() {
  local main=$lab/guest/main status=0
  [ $# -gt 0 ] || set -- -serial stdio
  # Software emulation, always: a /dev/kvm that exists may still hang for ever, and figures compare only if all are made alike.
  # no_timer_check: the kernel waits for its timer for so many turns, not so much time, and hangs for ever if a busy machine is late.
  # mitigations=off: nobody attacks this kernel, and what protects it costs a tenth of the time under emulation.
  # norandmaps: what QEMU has translated of a program is used again only at the same address; starting one then costs a third.
  # slab_nomerge: what a connection is made of is counted for itself.
  # The host is shown read-only; multidevs=remap because its files may lie on several file systems.
  timeout --foreground --kill-after=5 "$vm_deadline" qemu-system-x86_64 -accel tcg,thread=multi -cpu max -m 2048 -smp 2 \
    -nodefaults -no-user-config -display none -no-reboot \
    -kernel "$cache/guest/vmlinuz" -initrd "$cache/guest/initramfs.gz" \
    -append "console=ttyS1 quiet panic=-1 no_timer_check slab_nomerge mitigations=off norandmaps main=$main" \
    "$@" -serial "file:$out/kernel.log" \
    -fsdev local,id=host,path=/,security_model=none,readonly=on,multidevs=remap \
    -device virtio-9p-pci,fsdev=host,mount_tag=host \
    -fsdev "local,id=extra,path=$cache/guest/root,security_model=none,readonly=on" \
    -device virtio-9p-pci,fsdev=extra,mount_tag=extra \
    -fsdev "local,id=out,path=$out,security_model=none" \
    -device virtio-9p-pci,fsdev=out,mount_tag=out \
    -device virtio-rng-pci <&0 &
  vm_pid=$!
  wait "$vm_pid" || status=$?
  vm_pid=
  [ -e "$out/ended" ] || echo "lab: the guest did not end by itself within $vm_deadline s (status $status); its kernel's words are in $out/kernel.log" >&2
  [ -e "$out/ended" ]
}

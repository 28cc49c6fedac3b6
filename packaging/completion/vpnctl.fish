# fish completion for vpnctl

complete -c vpnctl -f
complete -c vpnctl -s c -l config -r -F -d 'Read the connection from FILE'

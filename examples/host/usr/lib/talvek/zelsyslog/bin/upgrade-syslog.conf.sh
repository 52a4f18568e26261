#!/bin/sh
# Stand-in syslog configuration upgrade, run after the plugins.
echo "syslog daemon: /etc/syslog.conf upgraded" >> /var/log/example-boot.log

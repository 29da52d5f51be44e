# The service is enabled once; what the administrator makes of it then is kept. It starts nothing until there is a switch.
if [ "$1" -eq 1 ]; then
  systemctl --no-reload enable ravd.service || :
fi
if [ -d /run/systemd/system ]; then
  systemctl daemon-reload || :
  [ "$1" -gt 1 ] || systemctl start ravd.service || :
fi

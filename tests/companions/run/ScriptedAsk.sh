#!/bin/sh
# Stands for systemd-ask-password.
echo "scripted answer"

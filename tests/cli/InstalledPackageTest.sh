#!/bin/bash
exit 1

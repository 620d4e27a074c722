#!/bin/sh
# Splits what it is given into words by accident.
ls $1

# Installation of the package.

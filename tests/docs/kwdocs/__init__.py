"""What the tests of the documentation share."""

// (placeholder: implemented by its owner)

"""Blocks that several of the networks use."""

from __future__ import annotations

import torch
from torch import Tensor, nn


def conv_norm(
    inputs: int, outputs: int, kernel: int = 1, stride: int = 1, *,
    groups: int = 1, dilation: int = 1, act: nn.Module | None = None,
) -> nn.Sequential:  # fmt: skip
    """A convolution that keeps the size except for its stride, a normalization and an activation (or none)."""
    padding = dilation * (kernel // 2)
    convolution = nn.Conv2d(inputs, outputs, kernel, stride, padding, dilation, groups, bias=False)
    return nn.Sequential(convolution, nn.BatchNorm2d(outputs), act if act is not None else nn.Identity())


class SqueezeExcite(nn.Module):
    """Weights the channels by a function of their means."""

    def __init__(self, channels: int, inner: int, gate: nn.Module) -> None:
        super().__init__()
        self.reduce, self.expand = nn.Conv2d(channels, inner, 1), nn.Conv2d(inner, channels, 1)
        self.act, self.gate = nn.ReLU(), gate

    def forward(self, x: Tensor) -> Tensor:
        """The input times the gate."""
        means = x.mean((2, 3), keepdim=True)
        return x * self.gate(self.expand(self.act(self.reduce(means))))


class Bottleneck(nn.Module):
    """Three convolutions, the middle one 3 x 3, and a shortcut with a convolution if the shape changes."""

    def __init__(self, inputs: int, inner: int, outputs: int, stride: int = 1, dilation: int = 1) -> None:
        super().__init__()
        self.body = nn.Sequential(
            conv_norm(inputs, inner, act=nn.ReLU()),
            conv_norm(inner, inner, 3, stride, dilation=dilation, act=nn.ReLU()),
            conv_norm(inner, outputs),
        )
        changes = inputs != outputs or stride > 1
        self.shortcut = conv_norm(inputs, outputs, 1, stride) if changes else nn.Identity()

    def forward(self, x: Tensor) -> Tensor:
        """Both ways, summed."""
        return torch.relu(self.body(x) + self.shortcut(x))


def head(channels: int, classes: int = 10) -> nn.Sequential:
    """Mean over the image, then classes."""
    return nn.Sequential(nn.AdaptiveAvgPool2d(1), nn.Flatten(), nn.Linear(channels, classes))


def randomize(network: nn.Module) -> nn.Module:
    """Statistics other than 0 and 1 for the normalizations, so that folding them changes numbers."""
    generator = torch.Generator().manual_seed(1)
    for module in network.modules():
        if isinstance(module, nn.BatchNorm2d):
            for tensor, least in ((module.running_mean, -0.2), (module.running_var, 0.5), (module.weight, 0.7)):
                tensor.data.copy_(least + 0.6 * torch.rand(tensor.shape, generator=generator))
    return network.eval()

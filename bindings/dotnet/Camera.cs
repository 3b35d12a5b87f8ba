using System;

namespace Orvik
{
    /// <summary>
    /// One camera, from the time when it is attached until it is detached. No restart of the service gives
    /// a value another meaning: calls refuse that of a camera that has gone (<see cref="ErrorKind.NoSuchCamera"/>).
    /// </summary>
    public struct Camera : IEquatable<Camera>
    {
        internal readonly ulong Value;

        internal Camera(ulong value)
        {
            Value = value;
        }

        /// <summary>The service's identifier; every run of the service counts from 1.</summary>
        public int Id
        {
            get { return unchecked((int)Value); }
        }

        /// <summary>Whether it is the same camera.</summary>
        public bool Equals(Camera other)
        {
            return Value == other.Value;
        }

        /// <inheritdoc/>
        public override bool Equals(object other)
        {
            return other is Camera && Equals((Camera)other);
        }

        /// <inheritdoc/>
        public override int GetHashCode()
        {
            return Value.GetHashCode();
        }

        /// <summary>The service's identifier.</summary>
        public override string ToString()
        {
            return unchecked((uint)Value).ToString();
        }

        /// <summary>Whether it is the same camera.</summary>
        public static bool operator ==(Camera left, Camera right)
        {
            return left.Equals(right);
        }

        /// <summary>Whether it is another camera.</summary>
        public static bool operator !=(Camera left, Camera right)
        {
            return !left.Equals(right);
        }
    }

    /// <summary>About a camera that was attached or detached.</summary>
    public sealed class CameraEventArgs : EventArgs
    {
        internal CameraEventArgs(Camera camera)
        {
            Camera = camera;
        }

        /// <summary>The camera.</summary>
        public Camera Camera { get; }
    }

    /// <summary>About a connection that ended or could not be made.</summary>
    public sealed class DisconnectedEventArgs : EventArgs
    {
        internal DisconnectedEventArgs(OrvikException error)
        {
            Error = error;
        }

        /// <summary>Why.</summary>
        public OrvikException Error { get; }
    }
}
